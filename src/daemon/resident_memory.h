// What the daemon keeps in memory while it waits.
#pragma once

namespace dirwell {

// Keeps to one heap for all threads: those of the daemon allocate little, and each heap more makes each fork dearer.
// Before the first thread is started; a C library that refuses leaves all as it is.
void share_one_heap();

// Gives back the read-only parts of programs and libraries of which no page is the process's own: code and constant
// data, collation tables above all. They stay in the system's page cache and come back one by one as they are used.
// Forked processes lose nothing, since such pages are not handed on in a fork. Never fails as a whole. Any thread.
void release_unwritten_pages();

}  // namespace dirwell
