#include "platform/host/request_reader.h"

namespace dirwell::host {
namespace {

using State = RequestReader::State;
using testing::ElementsAre;
using testing::Pair;

// Feeds the text in pieces of `piece` bytes, giving what was not taken again, as a connection does.
void feed(RequestReader &reader, std::string_view text, std::size_t piece, std::string &buffer) {
  while (!text.empty()) {
    buffer.append(text.substr(0, piece));
    text.remove_prefix(std::min(piece, text.size()));
    buffer.erase(0, reader.feed(buffer));
  }
}

void feed(RequestReader &reader, std::string_view text, std::size_t piece) {
  std::string buffer;
  feed(reader, text, piece, buffer);
}

int refusal_of(std::string_view text) {
  RequestReader reader;
  reader.feed(text);
  return reader.state() == State::refused ? reader.refusal().status : 0;
}

TEST(RequestReader, ReadsARequestWhateverThePieces) {
  const std::string text =
      "POST /fetch.resource?limit=50 HTTP/1.1\r\nHost: localhost\r\nContent-Length: 5\r\n\r\nhello";
  for (const std::size_t piece : {std::size_t{1}, std::size_t{2}, std::size_t{7}, text.size()}) {
    RequestReader reader;
    feed(reader, text, piece);
    ASSERT_EQ(reader.state(), State::complete) << piece;
    EXPECT_TRUE(reader.terms().keep_alive);
    const IncomingRequest request = reader.take();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target.path, "/fetch.resource");
    EXPECT_THAT(request.target.parameters, ElementsAre(Pair("limit", "50")));
    EXPECT_EQ(request.body, "hello");
  }
}

TEST(RequestReader, ReadsAChunkedBodyWithExtensionsAndTrailer) {
  const std::string text =
      "POST /x HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n5;n=v\r\nhello\r\n1\r\n!\r\n0\r\nT: v\r\n\r\n";
  for (const std::size_t piece : {std::size_t{1}, std::size_t{3}, text.size()}) {
    RequestReader reader;
    feed(reader, text, piece);
    ASSERT_EQ(reader.state(), State::complete) << piece;
    EXPECT_EQ(reader.take().body, "hello!");
  }
}

TEST(RequestReader, LeavesTheNextRequestAlone) {
  RequestReader reader;
  const std::string first = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";
  EXPECT_EQ(reader.feed(first + "GET /2 HTTP/1.1\r\n"), first.size());
  EXPECT_EQ(reader.state(), State::complete);
  RequestReader with_body;
  const std::string second = "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 2\r\n\r\nok";
  EXPECT_EQ(with_body.feed(second + "POST"), second.size());
  EXPECT_EQ(with_body.take().body, "ok");
}

TEST(RequestReader, SkipsEmptyLinesInFrontOfARequest) {
  RequestReader reader;
  feed(reader, "\r\n\r\nGET / HTTP/1.1\r\nHost: a\r\n\r\n", 1);
  EXPECT_EQ(reader.state(), State::complete);
}

TEST(RequestReader, KnowsWhetherARequestHasBegun) {
  RequestReader reader;
  EXPECT_FALSE(reader.begun());
  feed(reader, "\r\n\r", 1);
  EXPECT_FALSE(reader.begun());
  feed(reader, "POST / HTTP/1.1\r\n", 100);
  EXPECT_TRUE(reader.begun());
}

TEST(RequestReader, KnowsWhetherAnotherRequestMayFollow) {
  const auto keeps = [](std::string_view text) {
    RequestReader reader;
    reader.feed(text);
    EXPECT_EQ(reader.state(), State::complete) << text;
    return reader.terms().keep_alive;
  };
  EXPECT_TRUE(keeps("GET / HTTP/1.1\r\nHost: a\r\n\r\n"));
  EXPECT_FALSE(keeps("GET / HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n"));
  EXPECT_FALSE(keeps("GET / HTTP/1.0\r\n\r\n"));
  EXPECT_TRUE(keeps("GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n"));
}

TEST(RequestReader, AsksForTheBodyWhenTheClientWaits) {
  RequestReader waits;
  waits.feed("POST / HTTP/1.1\r\nHost: a\r\nExpect: 100-Continue\r\nContent-Length: 2\r\n\r\n");
  EXPECT_TRUE(waits.expects_continue());
  waits.feed("ok");
  EXPECT_FALSE(waits.expects_continue());
  RequestReader bodyless;
  bodyless.feed("POST / HTTP/1.1\r\nHost: a\r\nExpect: 100-continue\r\n\r\n");
  EXPECT_EQ(bodyless.state(), State::complete);
  EXPECT_FALSE(bodyless.expects_continue());
  RequestReader old;
  old.feed("POST / HTTP/1.0\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\n");
  EXPECT_FALSE(old.expects_continue());
}

TEST(RequestReader, RefusesWhatIsMalformed) {
  for (const char *text :
       {"nonsense\r\n\r\n",
        "GET\r\n\r\n",
        "GET / HTTP/2.0\r\nHost: a\r\n\r\n",
        "GET / HTTX/1.1\r\nHost: a\r\n\r\n",
        "GET / HTTP/1.1\r\n\r\n",
        "GET / HTTP/1.1\r\nHost: a\r\nHost: a\r\n\r\n",
        "GET / HTTP/1.0\r\nHost: a\r\nHost: b\r\n\r\n",
        "GET / HTTP/1.1\r\nHost: a\r\nbad header\r\n\r\n",
        "GET / HTTP/1.1\r\nHost: a\r\nbad : x\r\n\r\n",
        "GET /% HTTP/1.1\r\nHost: a\r\n\r\n",
        "GET nothing HTTP/1.1\r\nHost: a\r\n\r\n",
        "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: x\r\n\r\n",
        "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: -1\r\n\r\n",
        "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n",
        "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n",
        "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: gzip\r\n\r\n",
        "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: gzip, chunked\r\n\r\n",
        "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n\r\n",
        "POST / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n",
        "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
        "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nabc\r\n"}) {
    EXPECT_EQ(refusal_of(text), 400) << text;
  }
}

TEST(RequestReader, BoundsTheHead) {
  const std::string line = "GET / HTTP/1.1\r\nHost: a\r\nX: ";
  const auto head = [&](std::size_t size) { return line + std::string(size - line.size() - 4, 'x') + "\r\n\r\n"; };
  RequestReader fits;
  fits.feed(head(16UL * 1024));
  EXPECT_EQ(fits.state(), State::complete);
  EXPECT_EQ(refusal_of(head(16UL * 1024 + 1)), 431);
  RequestReader in_pieces;
  feed(in_pieces, head(16UL * 1024 + 1), 1000);
  ASSERT_EQ(in_pieces.state(), State::refused);
  EXPECT_EQ(in_pieces.refusal().status, 431);
  EXPECT_EQ(refusal_of("GET /" + std::string(20'000, 'x')), 431);
}

TEST(RequestReader, BoundsTheBody) {
  const std::string head = "POST / HTTP/1.1\r\nHost: a\r\n";
  RequestReader fits;
  fits.feed(head + "Content-Length: 1048576\r\n\r\n" + std::string(1'048'576, 'x'));
  ASSERT_EQ(fits.state(), State::complete);
  EXPECT_EQ(fits.take().body.size(), 1'048'576U);
  EXPECT_EQ(refusal_of(head + "Content-Length: 1048577\r\n\r\n"), 413) << "before any of it was read";
  EXPECT_EQ(refusal_of(head + "Content-Length: 1048577\r\nExpect: 100-continue\r\n\r\n"), 413);
  EXPECT_EQ(refusal_of(head + "Transfer-Encoding: chunked\r\n\r\n100001\r\n"), 413);
  RequestReader chunks;
  std::string buffer;
  feed(chunks, head + "Transfer-Encoding: chunked\r\n\r\n", 4096, buffer);
  std::string chunk = "10000\r\n" + std::string(65536, 'x') + "\r\n";
  for (int count = 0; count < 16; ++count) {
    feed(chunks, chunk, 4096, buffer);
  }
  EXPECT_EQ(chunks.state(), State::body);
  feed(chunks, "1\r\nx\r\n", 6, buffer);
  EXPECT_EQ(chunks.refusal().status, 413);
}

TEST(RequestReader, BoundsTheLinesOfAChunkedBody) {
  const std::string head = "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n";
  EXPECT_EQ(refusal_of(head + "5;" + std::string(20'000, 'x')), 431);
  EXPECT_EQ(refusal_of(head + "0\r\nT: " + std::string(20'000, 'x')), 431);
}

TEST(RequestReader, NeverTakesBytesTwice) {
  RequestReader reader;
  const std::string text = "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\nrest";
  std::string buffer = text;
  std::size_t taken = 0;
  for (std::size_t used = 1; used > 0;) {
    used = reader.feed(buffer);
    buffer.erase(0, used);
    taken += used;
  }
  EXPECT_EQ(taken, text.size() - 4);
  EXPECT_EQ(buffer, "rest");
}

}  // namespace
}  // namespace dirwell::host
