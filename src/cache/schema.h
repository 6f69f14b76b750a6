// The tables of a store.
#pragma once

#include <string_view>

namespace dirwell {

constexpr const char *schema =
    "DROP TABLE IF EXISTS cache; CREATE TABLE IF NOT EXISTS cache ( uuid TEXT NOT NULL DEFAULT '', path TEXT NOT NULL "
    "DEFAULT '', alias TEXT NOT NULL DEFAULT '' ); DROP TABLE IF EXISTS entry; CREATE TABLE IF NOT EXISTS entry ( path "
    "INT NOT NULL DEFAULT 0, name TEXT NOT NULL DEFAULT '', stat BLOB NOT NULL DEFAULT '', cluster TEXT NOT NULL "
    "DEFAULT '' );";

// How SQLite records the two.
constexpr std::string_view recorded_cache_table =
    "CREATE TABLE cache ( uuid TEXT NOT NULL DEFAULT '', path TEXT NOT NULL DEFAULT '', alias TEXT NOT NULL DEFAULT '' "
    ")";
constexpr std::string_view recorded_entry_table =
    "CREATE TABLE entry ( path INT NOT NULL DEFAULT 0, name TEXT NOT NULL DEFAULT '', stat BLOB NOT NULL DEFAULT '', "
    "cluster TEXT NOT NULL DEFAULT '' )";

}  // namespace dirwell
