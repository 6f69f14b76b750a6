"""The endpoints and their usage texts as the bus hands them out, byte for byte."""

import pytest

ENDPOINTS = "watch\nfetch.cache\ndelete.cache\ncreate.cache\nfetch.resource\n"

WATCH = """watch cached path

Usage: [General]

[General]:
   dirwell.watch

[Options]:
   uuid=(str)          cache uuid
   index=(int)         cache index

"""

FETCH_CACHE = """fetch cached resources

Usage: [General]

[General]:
   dirwell.fetch.cache

[Options]:
   uuid=(str)          cache uuid
   index=(int)         cache index
   limit=(int)         cache entries limit
   offset=(int)        cache entries offset

"""

DELETE_CACHE = """delete cached

Usage: [General]

[General]:
   dirwell.delete.cache

[Options]:
   uuid=(str)          cache uuid
   index=(int)         cache index

"""

LISTING_OPTIONS = """   lang=(str)          sorting by language
                       ENG (English)
                       SCH (简体中文)
                       TCH (繁體中文)
                       CZE (Czech)
                       DAN (Dansk)
                       GER (Deutsch)
                       SPA (Español)
                       FRE (Français)
                       ITA (Italiano)
                       JPN (日本語)
                       KOR (한글)
                       NOR (Norsk)
                       POL (Polski)
                       RUS (Русский)
                       FIN (Suomi)
                       SWE (Svenska)
                       DUT (Nederlands)
                       TUR (Turk dili)
                       THA (ไทย)
                       HUN (Magyar)
                       POR (Português)
                       GRK (Ελληνικά)
                       ROM (Român)
   path=(str/array)    folder path(s)
   name=(str)          which name file/folder contians
   type=(str)          string format as mime(:name)?, and avaiable mime types:
                       music, video, photo, file, folder and extname
                       only extname support name
   date=(str[])        string format as [>|>=|==|<=|<][timestamp], ex: <=1310572800 (means <=2011/06/14)
   size=(str)          string format as [>|>=|==|<=|<][size][K|M|G|T], ex: >=1024K (means >=1M)
   owner=(str)         owner name
   group=(str)         group name
   index=(int)         cache index (1 or 2), default is 1
   sort=(str)          string format as [name|date|type|size|owner|group|permission]:[asc|desc]
   cluster=(str/bool)  string format as [name|date|type|size|owner|group|permission]:[asc|desc]
                       if input is boolean value, do not perform clustering
   reach_time=(int)    time of seconds to read resources (<=0 is infinite)
   reach_limit=(int)   how many resources would be read (<=0 is infinite)
   hidden=(bool)       hide name is startwith . (default true)
   recursive=(bool)    read folder recursively (default false)
"""

CREATE_CACHE = """create cache from fetched file and folder resources

Usage: [General]

[General]:
   dirwell.create.cache

[Options]:
""" + LISTING_OPTIONS + "\n"

FETCH_RESOURCE = """fetche file and folder resources

Usage: [General]

[General]:
   dirwell.fetch.resource

[Options]:
""" + LISTING_OPTIONS + """   limit=(int)         cache entries limit
   offset=(int)        cache entries offset

"""


def test_the_endpoints_are_listed_in_the_order_of_their_registration(daemon):
    reply = daemon.exchange("GET", "/")
    assert (reply.status, reply.body.decode()) == (200, ENDPOINTS)
    assert reply.content_type.split(";")[0] == "text/plain"


@pytest.mark.parametrize("endpoint, text", [
    ("watch", WATCH),
    ("fetch.cache", FETCH_CACHE),
    ("delete.cache", DELETE_CACHE),
    ("create.cache", CREATE_CACHE),
    ("fetch.resource", FETCH_RESOURCE),
])
def test_the_usage_text_of_an_endpoint(daemon, endpoint, text):
    reply = daemon.exchange("OPTIONS", f"/{endpoint}")
    assert reply.status == 200
    assert reply.body.decode("utf-8") == text
    assert reply.content_type == "text/plain; charset=utf-8"
    assert {method.strip() for method in reply.headers["allow"].split(",")} == {"OPTIONS", "POST"}


def test_an_unknown_endpoint_has_no_usage_text(daemon):
    assert daemon.exchange("OPTIONS", "/fetch").status == 404
