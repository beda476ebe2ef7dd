// The two protocols without a network: requests in pieces, gzip bodies, and the conversion of Graphite lines.
#include <fmt/ranges.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>

#include "codec/graphite.h"
#include "codec/line_protocol.h"
#include "net/gzip.h"
#include "net/http.h"

using namespace metricdb;

constexpr size_t MAX_BODY = 20;

// Parses requests in pieces. Returns one line per request, and the final state.
static std::string read_pieces(const std::vector<std::string_view> &pieces) {
  BlockPool pool(size_t{1} << 20);
  ByteBuffer input(pool);
  HttpReader reader(MAX_BODY);
  std::string seen;
  for (const std::string_view piece : pieces) {
    EXPECT_TRUE(input.make_room(std::max(piece.size(), reader.room_wanted(input))));
    std::memcpy(input.tail(), piece.data(), piece.size());
    input.append_room(piece.size());
    HttpReader::Outcome outcome;
    while ((outcome = reader.read(input)) == HttpReader::Outcome::request) {
      const HttpRequest &request = reader.request();
      seen += std::string(http_method_str(request.method)) + " " + request.target + " [" + std::string(request.body) +
              "]" + request.content_encoding + (request.keep_alive ? "" : " last") + "\n";
      reader.done(input);
    }
    if (outcome == HttpReader::Outcome::refused) return seen + std::to_string(reader.refusal().status);
  }
  return seen + (reader.is_inside_request() ? "more" : "end");
}

TEST(HttpReader, RequestsInPieces) {
  static const struct {
    const char *fault;  // what the row detects
    std::string stream;
    const char *seen;
  } rows[] = {
      {"a body's bytes are taken for a request",
       "POST /w HTTP/1.1\r\nContent-Length: 9\r\n\r\nGET / x\r\nGET /p HTTP/1.1\r\n\r\n",
       "POST /w [GET / x\r\n]\nGET /p []\nend"},
      {"chunks are not moved together, or their frames stay",
       "POST /w HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n1;x=y\r\nd\r\nA\r\n0123456789\r\n0\r\n\r\n",
       "POST /w [abcd0123456789]\nend"},
      {"a trailer counts as header, or spoils the next request",
       "POST /w HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n0\r\nContent-Encoding: gzip\r\n\r\n"
       "POST /w HTTP/1.1\r\nContent-Length: 1\r\n\r\nb",
       "POST /w [a]\nPOST /w [b]\nend"},
      {"headers of one request stay for the next",
       "POST /w HTTP/1.1\r\ncontent-ENCODING: GZip\r\nContent-Length: 1\r\n\r\na"
       "POST /w HTTP/1.1\r\nContent-Length: 1\r\n\r\nb",
       "POST /w [a]gzip\nPOST /w [b]\nend"},
      {"an offered upgrade swallows what follows",
       "GET /a HTTP/1.1\r\nConnection: Upgrade\r\nUpgrade: h2c\r\n\r\nGET /b HTTP/1.1\r\n\r\n",
       "GET /a []\nGET /b []\nend"},
      {"Connection: close is ignored", "GET /a HTTP/1.1\r\nConnection: close\r\n\r\n", "GET /a [] last\nend"},
      {"HTTP/1.0 is kept without keep-alive", "GET /a HTTP/1.0\r\n\r\n", "GET /a [] last\nend"},
      {"HTTP/1.0 is closed with keep-alive", "GET /a HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", "GET /a []\nend"},
      {"lines between", "\r\n\r\nGET /a HTTP/1.1\r\n\r\n\r\nGET /b HTTP/1.1\r\n\r\n", "GET /a []\nGET /b []\nend"},
      {"an incomplete request is accepted", "POST /w HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc", "more"},
      {"a body of the maximum size is refused", "POST /w HTTP/1.1\r\nContent-Length: 20\r\n\r\n01234567890123456789",
       "POST /w [01234567890123456789]\nend"},
      {"a body over the limit is accepted", "POST /w HTTP/1.1\r\nContent-Length: 21\r\n\r\n", "413"},
      {"long chunks", "POST /w HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n14\r\n01234567890123456789\r\n1\r\n0\r\n",
       "413"},
      {"two lengths", "POST /w HTTP/1.1\r\nContent-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n", "400"},
      {"an invalid length is accepted", "POST /w HTTP/1.1\r\nContent-Length: -1\r\n\r\n", "400"},
      {"a length over 64 bits is accepted", "POST /w HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n", "400"},
      {"another protocol", "\x16\x03\x01\x02", "400"},
      {"a newer HTTP", "PRI * HTTP/2.0\r\n\r\n", "400"},
      {"a chunk is waited for that is too long", "POST /w HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n15\r\n", "413"},
      {"its length wraps", "POST /w HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n8000000000000000\r\n",
       "413"},
      {"another coding is taken for plain", "POST /w HTTP/1.1\r\nTransfer-Encoding: gzip, chunked\r\n\r\n", "501"},
      {"codings in two headers", "POST /w HTTP/1.1\r\nTransfer-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n\r\n",
       "501"},
      {"a coding without chunks", "POST /w HTTP/1.1\r\nTransfer-Encoding: identity\r\n\r\n", "501"},
      {"an unknown expectation is ignored", "POST /w HTTP/1.1\r\nExpect: miracles\r\nContent-Length: 1\r\n\r\n", "417"},
      {"an endless target", "GET /" + std::string(17 << 10, 'a'), "414"},
      {"an endless header", "GET / HTTP/1.1\r\nX: " + std::string(17 << 10, 'a'), "431"},
      {"endless headers",
       fmt::format("GET / HTTP/1.1\r\n{}", fmt::join(std::vector<std::string>(2000, "Name: value\r\n"), "")), "431"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const std::string_view stream = row.stream;
    EXPECT_EQ(read_pieces({stream}), row.seen);
    const size_t step = stream.size() < 1000 ? 1 : 997;
    for (size_t cut = 1; cut < stream.size(); cut += step)
      EXPECT_EQ(read_pieces({stream.substr(0, cut), stream.substr(cut)}), row.seen) << cut;
    std::vector<std::string_view> bytes;
    for (size_t i = 0; i < stream.size(); ++i) bytes.push_back(stream.substr(i, 1));
    EXPECT_EQ(read_pieces(bytes), row.seen) << "byte by byte";
  }
}

// A long body moves to larger blocks. All blocks are returned in the end.
TEST(HttpReader, MemoryFollowsReceivedBytes) {
  for (const bool is_chunked : {false, true}) {
    BlockPool pool(size_t{64} << 20);
    HttpReader reader(size_t{16} << 20);
    std::string body;
    for (int i = 0; body.size() < (size_t{9} << 20); ++i) body += std::to_string(i) + ",";
    std::string stream = "POST /w HTTP/1.1\r\n";
    if (is_chunked) {
      stream += "Transfer-Encoding: chunked\r\n\r\n";
      for (size_t at = 0; at < body.size(); at += 5000) {
        const std::string piece = body.substr(at, 5000);
        stream += fmt::format("{:x}\r\n{}\r\n", piece.size(), piece);
      }
      stream += "0\r\n\r\n";
    } else {
      stream += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }
    {
      ByteBuffer input(pool);
      std::string_view rest = stream;
      HttpReader::Outcome outcome = HttpReader::Outcome::more;
      while (outcome == HttpReader::Outcome::more && !rest.empty()) {
        ASSERT_TRUE(input.make_room(reader.room_wanted(input)));
        const size_t n = std::min(rest.size(), input.room());
        std::memcpy(input.tail(), rest.data(), n);
        input.append_room(n);
        rest.remove_prefix(n);
        outcome = reader.read(input);
        // Memory depends on the received bytes, not on the announced length.
        EXPECT_LE(pool.lent_bytes(), std::max(BlockPool::MIN_BYTES, 5 * (stream.size() - rest.size())));
      }
      ASSERT_EQ(outcome, HttpReader::Outcome::request);
      EXPECT_TRUE(reader.request().body == body);
      reader.done(input);
    }
    EXPECT_EQ(pool.lent_bytes(), 0u);
  }
}

static std::string gzipped(std::string_view text) {
  z_stream stream = {};
  EXPECT_EQ(deflateInit2(&stream, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY), Z_OK);
  std::string packed(deflateBound(&stream, text.size()) + 64, '\0');
  stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef *>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  packed.resize(stream.total_out);
  deflateEnd(&stream);
  return packed;
}

TEST(Gunzip, ValidBrokenAndTooLong) {
  using Outcome = Gunzip::Outcome;
  const std::string text(300'000, 'a');
  const std::string packed = gzipped(text);
  std::string damaged = packed;
  damaged[damaged.size() - 6] ^= 1;  // in the checksum
  const struct {
    const char *fault;  // what the row detects
    std::string packed;
    size_t max_bytes;
    Outcome outcome;
    std::string plain;
  } rows[] = {
      {"longer than the smallest block", packed, text.size(), Outcome::good, text},
      {"one byte too long passes", packed, text.size() - 1, Outcome::too_long, ""},
      {"several members", gzipped("a\n") + gzipped("") + gzipped("b\n"), 4, Outcome::good, "a\nb\n"},
      {"several members are bounded one by one", gzipped("abc") + gzipped("def"), 5, Outcome::too_long, ""},
      {"cut off", packed.substr(0, packed.size() - 1), text.size(), Outcome::broken, ""},
      {"damaged", damaged, text.size(), Outcome::broken, ""},
      {"text after it", packed + "x", text.size(), Outcome::broken, ""},
      {"not gzip", "m f=1 5", 100, Outcome::broken, ""},
      {"nothing", "", 100, Outcome::broken, ""},
      {"more than the pool has", gzipped(std::string(3 << 20, 'a')), 4 << 20, Outcome::no_room, ""},
  };
  BlockPool pool(2 << 20);
  Gunzip gunzip;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    ByteBuffer plain(pool);
    EXPECT_EQ(gunzip.inflate_into(plain, row.packed, row.max_bytes), row.outcome);
    if (row.outcome == Outcome::good) {
      EXPECT_TRUE(plain.text() == row.plain);
    }
  }
  EXPECT_EQ(pool.lent_bytes(), 0u);
}

TEST(Graphite, GoodLinesBecomeLineProtocol) {
  static const struct {
    const char *line, *converted;
  } rows[] = {
      {"a.b.c 1 1700000000", "a.b.c value=1 1700000000000000000"},
      {"a 1 1700000000.25", "a value=1 1700000000250000000"},
      {"a 1 1700000000.1234567899", "a value=1 1700000000123456789"},
      {"a 1 1700000000.", "a value=1 1700000000000000000"},
      {"a 1 0", "a value=1 0000000000"},
      {"a 1 9223372035", "a value=1 9223372035000000000"},
      {"a 1 -1", "a value=1"},
      {"a 1 N", "a value=1"},
      {"  a \t -1.5e3   7  \r", "a value=-1.5e3 7000000000"},
      {"a +2 7", "a value=2 7000000000"},
      {"a;host=h;zone=z 1 7", "a,host=h,zone=z value=1 7000000000"},
      {"a;k=v=w 1 7", "a,k=v\\=w value=1 7000000000"},
      {"a,b=c;k,l=v,w 1 7", "a\\,b=c,k\\,l=v\\,w value=1 7000000000"},
      {"a\\b\\,c 1 7", "a\\b\\\\,c value=1 7000000000"},
      {"Z\xc3\xbcrich 1 7", "Z\xc3\xbcrich value=1 7000000000"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.line);
    GraphiteConverter converter;
    converter.convert(std::string(row.line) + "\n\n");
    EXPECT_EQ(converter.text(), std::string(row.converted) + "\n");
    EXPECT_EQ(converter.malformed(), 0u);
    LineParser parser(Precision::ns);
    EXPECT_EQ(parser.parse(row.converted), LineParser::Outcome::line) << parser.reason();
    EXPECT_EQ(parser.line().fields.size(), 1u);
  }
}

TEST(Graphite, MalformedLinesAreSkipped) {
  static const struct {
    const char *reason;
    std::vector<std::string> lines;
  } rows[] = {
      {"expected: path value timestamp", {"a", "a 1", "a 1 7 8"}},
      {"the value is not a finite number", {"GET / HTTP/1.1", "a nan 7", "a inf 7", "a 1e999 7", "a 1x 7", "a + 7"}},
      {"the timestamp is not in seconds", {"a 1 x", "a 1 -5", "a 1 1.5e9", "a 1 .5"}},
      {"the timestamp is out of range", {"a 1 9223372036", "a 1 99999999999999999999999"}},
      {"the path begins with #", {"#a 1 7"}},
      {"a name is empty", {";k=v 1 7", "a;=v 1 7", "a;k= 1 7"}},
      {"a tag has no value", {"a;k 1 7", "a; 1 7"}},
      {"a name ends with a backslash", {"a\\ 1 7", "a;k=v\\ 1 7"}},
      {"a name has a control character", {std::string("a\0b 1 7", 7), "\x7f 1 7"}},
  };
  for (const auto &row : rows)
    for (const std::string &line : row.lines) {
      SCOPED_TRACE(line);
      GraphiteConverter converter;
      converter.convert("x 1 7\n" + line + "\ny 2 7");
      EXPECT_EQ(converter.text(), "x value=1 7000000000\ny value=2 7000000000\n");
      EXPECT_EQ(converter.malformed(), 1u);
      EXPECT_EQ(converter.first_reason(), row.reason);
    }
}
