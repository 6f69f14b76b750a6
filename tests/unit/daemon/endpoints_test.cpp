#include "daemon/endpoints.h"

#include <gtest/gtest.h>

namespace dirwell {
namespace {

TEST(UsageText, OfWatch) {
  EXPECT_EQ(usage_text("watch"),
            "watch cached path\n"
            "\n"
            "Usage: [General]\n"
            "\n"
            "[General]:\n"
            "   dirwell.watch\n"
            "\n"
            "[Options]:\n"
            "   uuid=(str)          cache uuid\n"
            "   index=(int)         cache index\n"
            "\n");
}

TEST(UsageText, OfFetchCache) {
  EXPECT_EQ(usage_text("fetch.cache"),
            "fetch cached resources\n"
            "\n"
            "Usage: [General]\n"
            "\n"
            "[General]:\n"
            "   dirwell.fetch.cache\n"
            "\n"
            "[Options]:\n"
            "   uuid=(str)          cache uuid\n"
            "   index=(int)         cache index\n"
            "   limit=(int)         cache entries limit\n"
            "   offset=(int)        cache entries offset\n"
            "\n");
}

TEST(UsageText, OfDeleteCache) {
  EXPECT_EQ(usage_text("delete.cache"),
            "delete cached\n"
            "\n"
            "Usage: [General]\n"
            "\n"
            "[General]:\n"
            "   dirwell.delete.cache\n"
            "\n"
            "[Options]:\n"
            "   uuid=(str)          cache uuid\n"
            "   index=(int)         cache index\n"
            "\n");
}

constexpr const char *listing_options =
    "   lang=(str)          sorting by language\n"
    "                       ENG (English)\n"
    "                       SCH (简体中文)\n"
    "                       TCH (繁體中文)\n"
    "                       CZE (Czech)\n"
    "                       DAN (Dansk)\n"
    "                       GER (Deutsch)\n"
    "                       SPA (Español)\n"
    "                       FRE (Français)\n"
    "                       ITA (Italiano)\n"
    "                       JPN (日本語)\n"
    "                       KOR (한글)\n"
    "                       NOR (Norsk)\n"
    "                       POL (Polski)\n"
    "                       RUS (Русский)\n"
    "                       FIN (Suomi)\n"
    "                       SWE (Svenska)\n"
    "                       DUT (Nederlands)\n"
    "                       TUR (Turk dili)\n"
    "                       THA (ไทย)\n"
    "                       HUN (Magyar)\n"
    "                       POR (Português)\n"
    "                       GRK (Ελληνικά)\n"
    "                       ROM (Român)\n"
    "   path=(str/array)    folder path(s)\n"
    "   name=(str)          which name file/folder contians\n"
    "   type=(str)          string format as mime(:name)?, and avaiable mime types:\n"
    "                       music, video, photo, file, folder and extname\n"
    "                       only extname support name\n"
    "   date=(str[])        string format as [>|>=|==|<=|<][timestamp], ex: <=1310572800 (means <=2011/06/14)\n"
    "   size=(str)          string format as [>|>=|==|<=|<][size][K|M|G|T], ex: >=1024K (means >=1M)\n"
    "   owner=(str)         owner name\n"
    "   group=(str)         group name\n"
    "   index=(int)         cache index (1 or 2), default is 1\n"
    "   sort=(str)          string format as [name|date|type|size|owner|group|permission]:[asc|desc]\n"
    "   cluster=(str/bool)  string format as [name|date|type|size|owner|group|permission]:[asc|desc]\n"
    "                       if input is boolean value, do not perform clustering\n"
    "   reach_time=(int)    time of seconds to read resources (<=0 is infinite)\n"
    "   reach_limit=(int)   how many resources would be read (<=0 is infinite)\n"
    "   hidden=(bool)       hide name is startwith . (default true)\n"
    "   recursive=(bool)    read folder recursively (default false)\n";

TEST(UsageText, OfCreateCache) {
  EXPECT_EQ(usage_text("create.cache"), std::string("create cache from fetched file and folder resources\n"
                                                    "\n"
                                                    "Usage: [General]\n"
                                                    "\n"
                                                    "[General]:\n"
                                                    "   dirwell.create.cache\n"
                                                    "\n"
                                                    "[Options]:\n") +
                                            listing_options + "\n");
}

TEST(UsageText, OfFetchResource) {
  EXPECT_EQ(usage_text("fetch.resource"), std::string("fetche file and folder resources\n"
                                                      "\n"
                                                      "Usage: [General]\n"
                                                      "\n"
                                                      "[General]:\n"
                                                      "   dirwell.fetch.resource\n"
                                                      "\n"
                                                      "[Options]:\n") +
                                              listing_options +
                                              "   limit=(int)         cache entries limit\n"
                                              "   offset=(int)        cache entries offset\n"
                                              "\n");
}

TEST(UsageText, OfAnUnknownEndpointIsEmpty) {
  EXPECT_EQ(usage_text("nonsense"), "");
}

}  // namespace
}  // namespace dirwell
