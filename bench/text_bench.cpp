// Text: Base64, hexadecimal, start codes, case, keys; beside OpenSSL, GLib and the C library, and beside the
// limit, which is what memcpy() or memchr() take for the same bytes.
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "bench_rows.h"
#include "qmx_memory.h"
#include "qmxutil_string.h"
#ifdef HAVE_OPENSSL
#include <openssl/crypto.h>
#include <openssl/evp.h>
#endif
#ifdef HAVE_GLIB
#include <glib.h>
#endif

namespace {

using Bytes = std::vector<uint8_t>;

struct Size {
  const char* name;
  uint32_t bytes;
};
constexpr Size k64{", 64 B", 64}, k4K{", 4 KiB", 4096}, k1M{", 1 MiB", 1 << 20};

template <class Function>
bench::Work repeat(Function function) {
  return [function](benchmark::State& state) mutable {
    for (auto _ : state) {
      benchmark::DoNotOptimize(function());
      benchmark::ClobberMemory();
    }
  };
}

Bytes random_bytes(size_t size, uint32_t zeros_in_four = 0, uint32_t seed = 7) {
  std::mt19937 random(seed);
  Bytes bytes(size);
  for (uint8_t& byte : bytes) {
    byte = static_cast<uint8_t>(random());
    if (random() % 4 < zeros_in_four) byte = 0;
  }
  return bytes;
}

std::string new_text(char* text) {
  const std::string copy(text);
  QMX_Free(text, 0);
  return copy;
}

std::string base64_of(const Bytes& bytes) {
  uint32_t length;
  return new_text(QMXUtilBase64Encoding(bytes.data(), static_cast<int32_t>(bytes.size()), &length));
}

bench::Work copying(size_t size) {
  return repeat([from = random_bytes(size), to = Bytes(size)]() mutable {
    std::memcpy(to.data(), from.data(), from.size());
    return to.data();
  });
}

// ---- Base64

bench::Work encoding(uint32_t size) {
  return repeat([bytes = random_bytes(size)] {
    uint32_t length;
    QMX_Free(QMXUtilBase64Encoding(bytes.data(), static_cast<int32_t>(bytes.size()), &length), 0);
    return length;
  });
}

bench::Work decoding(const std::string& text) {
  return repeat([text, out = Bytes(text.size())]() mutable {
    uint32_t length;
    QMXUtilBase64Decoding(text.data(), out.data(), static_cast<uint32_t>(text.size()), &length);
    return length;
  });
}

#ifdef HAVE_OPENSSL
bench::Work decoding_by_openssl(const std::string& text) {
  return repeat([text, out = Bytes(text.size())]() mutable {
    return EVP_DecodeBlock(out.data(), reinterpret_cast<const uint8_t*>(text.data()),
                           static_cast<int>(text.size()));
  });
}
#endif

std::string in_lines_of_76(const std::string& text) {
  std::string lines;
  for (size_t i = 0; i < text.size(); i += 76) lines += text.substr(i, 76) + "\r\n";
  return lines;
}

void add_base64() {
#ifdef HAVE_OPENSSL
  const std::string short_text = base64_of(random_bytes(48));
  bench::add_row("Base64 decode, 64 characters", "EVP_DecodeBlock", 1.2, decoding(short_text),
                 decoding_by_openssl(short_text));
#endif
  for (const Size& size : {k64, k4K, k1M}) {
    const std::string text = base64_of(random_bytes(size.bytes));
    const std::string encode = std::string("Base64 encode") + size.name;
    const std::string decode = std::string("Base64 decode") + size.name;
#ifdef HAVE_OPENSSL
    bench::add_row(encode, "EVP_EncodeBlock", size.bytes == 64 ? 1.1 : 0.65, encoding(size.bytes),
                   repeat([bytes = random_bytes(size.bytes), out = Bytes(size.bytes * 4 / 3 + 5)]() mutable {
                     return EVP_EncodeBlock(out.data(), bytes.data(), static_cast<int>(bytes.size()));
                   }));
    bench::add_row(decode, "EVP_DecodeBlock", size.bytes == 64 ? 1.2 : 0.75, decoding(text),
                   decoding_by_openssl(text));
#endif
#ifdef HAVE_GLIB
    const std::string lines = in_lines_of_76(text);
    const auto glib = [](const std::string& encoded) {
      return repeat([encoded] {
        gsize length;
        g_free(g_base64_decode(encoded.c_str(), &length));
        return length;
      });
    };
    if (size.bytes > 64) {
      bench::add_row(decode + ", in lines of 76", "g_base64_decode", 0.5, decoding(lines), glib(lines));
    }
    bench::add_row(encode + ", beside GLib", "g_base64_encode", 0, encoding(size.bytes),
                   repeat([bytes = random_bytes(size.bytes)] {
                     g_free(g_base64_encode(bytes.data(), bytes.size()));
                     return 0;
                   }));
#endif
    bench::add_row(encode + ", beside the limit", "memcpy", 0, encoding(size.bytes), copying(size.bytes));
    bench::add_row(decode + ", beside the limit", "memcpy", 0, decoding(text), copying(text.size()));
  }
}

// ---- Hexadecimal text

void add_hexadecimal() {
  for (const Size& size : {k64, k4K, k1M}) {
    const Bytes bytes = random_bytes(size.bytes);
    const std::string text = new_text(QMXUtil_ConvBinToStr(bytes.data(), size.bytes));
    const auto to_hex = repeat([bytes] {
      char* const digits = QMXUtil_ConvBinToStr(bytes.data(), static_cast<uint32_t>(bytes.size()));
      benchmark::DoNotOptimize(digits);
      QMX_Free(digits, 0);
      return 0;
    });
    const auto to_bytes = repeat([digits = text, out = Bytes(bytes.size())]() mutable {
      return QMXUtil_ConvStrToBin(digits.data(), static_cast<uint32_t>(digits.size()), out.data());
    });
    const std::string encode = std::string("bytes to hex") + size.name;
    const std::string decode = std::string("hex to bytes") + size.name;
#ifdef HAVE_OPENSSL
    const bool judged = size.bytes > 64;
    bench::add_row(encode, "OPENSSL_buf2hexstr", judged ? 0.2 : 0, to_hex, repeat([bytes] {
                     OPENSSL_free(OPENSSL_buf2hexstr(bytes.data(), static_cast<long>(bytes.size())));
                     return 0;
                   }));
    bench::add_row(decode, "OPENSSL_hexstr2buf", judged ? 0.15 : 0, to_bytes, repeat([text] {
                     long length;
                     OPENSSL_free(OPENSSL_hexstr2buf(text.c_str(), &length));
                     return length;
                   }));
#endif
    bench::add_row(encode + ", beside the limit", "memcpy", 0, to_hex, copying(bytes.size()));
    bench::add_row(decode + ", beside the limit", "memcpy", 0, to_bytes, copying(text.size()));
  }
}

// ---- Start codes

// The common way: the 01 is the rare byte, look back at the two before it. A function, as it is in a library.
[[gnu::noinline]] const uint8_t* scan_for_prefix(const uint8_t* data, const uint8_t* end) {
  for (const uint8_t* p = data + 2; p < end; ++p) {
    p = static_cast<const uint8_t*>(std::memchr(p, 1, static_cast<size_t>(end - p)));
    if (p == nullptr) break;
    if (p[-1] == 0 && p[-2] == 0) return p - 2;
  }
  return end;
}

// No start code but one in every `distance` bytes. With this seed the first 4 KiB hold sixteen ones, as is to
// be expected.
Bytes stream(size_t size, uint32_t zeros_in_four, size_t distance) {
  Bytes bytes = random_bytes(size, zeros_in_four, 2);
  for (size_t i = 2; i < size; ++i) {
    if (bytes[i] == 1 && bytes[i - 1] == 0 && bytes[i - 2] == 0) bytes[i] = 2;
  }
  for (size_t i = 700; distance != 0 && i + 4 <= size; i += distance) {
    std::memcpy(&bytes[i], "\0\0\1\xB5", 4);
  }
  return bytes;
}

bench::Work walking(const Bytes& bytes) {
  return repeat([bytes] {
    const uint8_t* cursor = bytes.data();
    uint32_t left = static_cast<uint32_t>(bytes.size()), code, count = 0;
    for (; QMXUtil_FindStartCode(&cursor, &left, &code); ++cursor, --left) ++count;
    return count;
  });
}

bench::Work walking_by_memchr(const Bytes& bytes) {
  return repeat([bytes] {
    const uint8_t* const end = bytes.data() + bytes.size();
    uint32_t count = 0;
    for (const uint8_t* p = bytes.data(); (p = scan_for_prefix(p, end)) != end; ++p) ++count;
    return count;
  });
}

void add_start_codes() {
  for (const Size& size : {k64, k4K, k1M}) {
    const std::string search = std::string("start code search") + size.name;
    const double bar = size.bytes == 64 ? 0 : 1;
    const Bytes none = stream(size.bytes, 0, 0), some = stream(size.bytes, 0, 1500),
                zeros = stream(size.bytes, 1, 0);
    bench::add_row(search + ", none", "memchr(1) and look back", bar, walking(none), walking_by_memchr(none));
    bench::add_row(search + ", one in 1500 bytes", "memchr(1) and look back", bar, walking(some),
                   walking_by_memchr(some));
    bench::add_row(search + ", a quarter zeros", "memchr(1) and look back", bar, walking(zeros),
                   walking_by_memchr(zeros));
    bench::add_row(
        search + ", beside the limit", "memchr of a byte not there", 0, walking(none),
        repeat([bytes = Bytes(size.bytes, 2)] { return std::memchr(bytes.data(), 1, bytes.size()); }));
    bench::add_row(std::string("search for one start code value") + size.name, "memmem",
                   size.bytes == 64 ? 0 : 0.25, repeat([some] {
                     const uint8_t* cursor = some.data();
                     uint32_t left = static_cast<uint32_t>(some.size());
                     return QMXUtil_FindStartCode2(&cursor, &left, 0x1B3);
                   }),
                   repeat([some] { return memmem(some.data(), some.size(), "\0\0\1\xB3", 4); }));
  }
}

// ---- Case

std::string words(size_t size, uint32_t seed) {
  std::mt19937 random(seed);
  std::string text;
  while (text.size() < size) {
    const char c = "etaoinshrdlu -0"[random() % 15];
    text += c >= 'a' && random() % 3 == 0 ? static_cast<char>(c - 32) : c;
  }
  return text;
}

std::string other_case(std::string text) {
  for (size_t i = 0; i < text.size(); i += 3) {
    if ((text[i] | 32) >= 'a' && (text[i] | 32) <= 'z') text[i] = static_cast<char>(text[i] ^ 32);
  }
  return text;
}

void add_case() {
  for (const Size& size : {k64, k4K, k1M}) {
    for (const bool lower : {true, false}) {
      const auto convert = lower ? QMXUtilStrntolower : QMXUtilStrntoupper;
      const std::string work = std::string(lower ? "lower case" : "upper case") + size.name;
      const auto ours = repeat([convert, text = words(size.bytes, 1)]() mutable {
        return convert(text.data(), static_cast<int32_t>(text.size()));
      });
#ifdef HAVE_GLIB
      bench::add_row(
          work, lower ? "g_ascii_strdown" : "g_ascii_strup", size.bytes == 4096 ? 0.1 : 0, ours,
          repeat([lower, text = words(size.bytes, 1)] {
            const auto length = static_cast<gssize>(text.size());
            g_free(lower ? g_ascii_strdown(text.c_str(), length) : g_ascii_strup(text.c_str(), length));
            return 0;
          }));
#endif
      bench::add_row(work + ", beside the limit", "memcpy", 0, ours, copying(size.bytes));
    }
  }
  for (const Size& size : {Size{", 12 B", 12}, k64, k4K, k1M}) {
    const std::string text = words(size.bytes, 1);
    const double bar = size.bytes == 12 ? 1.3 : size.bytes == 4096 ? 3 : 0;
    bench::add_row(std::string("comparison ignoring case") + size.name, "strcasecmp", bar,
                   repeat([a = text, b = other_case(text)] { return QMXUtilStricmp(a.c_str(), b.c_str()); }),
                   repeat([a = text, b = other_case(text)] { return strcasecmp(a.c_str(), b.c_str()); }));
  }
}

// ---- Keys

// A first line with the key's value at its end, and more lines after it.
struct Header {
  Header(size_t line_size, const std::string& last) {
    for (int i = 0; line.size() + last.size() < line_size; ++i)
      line += "name" + std::to_string(i) + "=value; ";
    line.resize(line_size - last.size(), ' ');
    line += last;
    text = line + "\r\n" + words(10000, 3);
  }
  std::string line, text;
};

void add_keys() {
  for (const size_t size : {90, 4000}) {
    for (const bool there : {true, false}) {
      const Header header(size, there ? "Content-Length: 1234567" : "");
      bench::add_row(
          "key search on a line of " + std::to_string(size) + (there ? "" : ", not there"), "memmem",
          size == 90 ? 1.2 : 1.0,
          repeat([header] { return QMXUtilStrFindString(header.text.c_str(), "Content-Length:"); }),
          repeat([header] { return memmem(header.text.data(), header.line.size(), "Content-Length:", 15); }));
    }
  }
  // Some letters of the line begin the key, as they do in any text.
  const std::string line =
      "Content-Type: multipart/mixed; boundary=frame; charset=utf-8; w=1920; h=1080; encoding=none";
  const std::string text = line + "\r\n" + words(10000, 3);
  bench::add_row("key search on a first line of 90, not there", "string_view::find", 1.2,
                 repeat([text] { return QMXUtilStrFindString(text.c_str(), "exposure="); }),
                 repeat([line, key = std::string("exposure=")] { return std::string_view(line).find(key); }));
  bench::add_row("decimal value after a short key, line of 90 B", "strstr and strtol", 1.5, repeat([text] {
                   int32_t value;
                   QMXUtilStrGetDecNumber(text.c_str(), "w=", &value);
                   return value;
                 }),
                 repeat([text] {
                   const char* const at = std::strstr(text.c_str(), "w=");
                   return at == nullptr ? 0L : std::strtol(at + 2, nullptr, 10);
                 }));
  for (const Size& size : {k64, k4K, k1M}) {
    const Header header(size.bytes, "Content-Length: 1234567");
    bench::add_row(std::string("decimal value after a key, line of") + (size.name + 1),
                   "memmem and std::from_chars", size.bytes == 64 ? 1.5 : 0, repeat([header] {
                     int32_t value;
                     QMXUtilStrGetDecNumber(header.text.c_str(), "Content-Length:", &value);
                     return value;
                   }),
                   repeat([header] {
                     int32_t value = 0;
                     const char* const end = header.line.data() + header.line.size();
                     const void* const at =
                         memmem(header.line.data(), header.line.size(), "Content-Length:", 15);
                     if (at == nullptr) return value;
                     const char* p = static_cast<const char*>(at) + 15;
                     while (p != end && (*p < '0' || *p > '9')) ++p;
                     std::from_chars(p, end, value);
                     return value;
                   }));
  }
}

const bench::Rows rows([] {
  add_base64();
  add_hexadecimal();
  add_start_codes();
  add_case();
  add_keys();
#ifndef HAVE_OPENSSL
  bench::add_note("OpenSSL is not installed: Base64 and hexadecimal have no peer here");
#endif
#ifndef HAVE_GLIB
  bench::add_note("GLib is not installed: Base64 in lines and case conversion have no peer here");
#endif
});

}  // namespace
