// The text family. The first byte chooses a function group, the rest is its input; the functions run on a
// copy of exactly that size, so that a step outside is seen.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "qmx_memory.h"
#include "qmxutil_string.h"
#include "text_models.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

// A text of its own, its NUL the last byte of the allocation.
class Text {
 public:
  Text(const uint8_t* data, size_t size) : size_(strnlen(reinterpret_cast<const char*>(data), size)) {
    text_.reset(new char[size_ + 1]);
    memcpy(text_.get(), data, size_);
    text_[size_] = '\0';
  }
  char* get() const { return text_.get(); }
  size_t size() const { return size_; }
  bool holds(const char* at) const { return at >= get() && at <= get() + size_; }

 private:
  size_t size_;
  std::unique_ptr<char[]> text_;
};

struct FreeBlock {
  template <class T>
  void operator()(T* block) const {
    QMX_Free(block, 0);
  }
};
template <class T>
using Block = std::unique_ptr<T, FreeBlock>;

void numbers(const Text& text) {
  char buffer[12];
  const int32_t value = QMX_ATOI(text.get());
  require(QMX_ITOA(value, buffer) == buffer);
  const uint32_t digits = static_cast<uint32_t>(QMX_ATOI(buffer + (value < 0)));
  require((value < 0 ? 0 - digits : digits) == static_cast<uint32_t>(value));
  QMX_ATOI_MS(text.get());
  QMX_ATOI_TS(text.get());
  QMX_ATOI_HEX(text.get());
  const std::string before(text.get());
  require(std::string(before.rbegin(), before.rend()) == QMX_strrev(text.get()));
}

// The key is what comes before the first '|'.
void values(const Text& input) {
  const char* const bar = strchr(input.get(), '|');
  if (bar == nullptr) return;
  const size_t key_size = static_cast<size_t>(bar - input.get());
  const Text key(reinterpret_cast<const uint8_t*>(input.get()), key_size);
  const Text text(reinterpret_cast<const uint8_t*>(bar + 1), input.size() - key_size - 1);
  const char* const at = QMXUtilStrFindString(text.get(), key.get());
  const size_t expected = qmxtest::model_find(text.get(), key.get());
  require(at == (expected != std::string::npos ? text.get() + expected : nullptr));

  int32_t number;
  uint32_t hexadecimal;
  for (const char* const end : {QMXUtilStrGetDecNumber(text.get(), key.get(), &number),
                                QMXUtilStrGetIntNumber(text.get(), key.get(), &number),
                                QMXUtilStrGetHexNumber(text.get(), key.get(), &hexadecimal),
                                QMXUtilStrGetFloatNumber(text.get(), key.get(), &number),
                                QMXUtilStrGetTimeNumber(text.get(), key.get(), &number)}) {
    require(end == nullptr || (at != nullptr && end > at && text.holds(end)));
  }
  for (const auto get : {QMXUtilStrGetString, QMXUtilStrGetHexString, QMXUtilStrGetAddress,
                         QMXUtilStrGetSafeString, QMXUtilStrGetContext, QMXUtilBase64GetString}) {
    const char* start;
    uint32_t length;
    const char* const end = get(text.get(), &start, &length);
    require(end == nullptr || (text.holds(start) && text.holds(end) && start + length == end));
  }
}

void strings(const Text& input) {
  const Text half(reinterpret_cast<const uint8_t*>(input.get()), input.size() / 2);
  const Text rest(reinterpret_cast<const uint8_t*>(input.get()) + half.size(), input.size() - half.size());
  const int order = QMXUtilStricmp(half.get(), rest.get());
  require(order == -QMXUtilStricmp(rest.get(), half.get()));
  require(QMXUtilStrnicmp(half.get(), rest.get(), UINT32_MAX) == order);
  const Block<char> joined(QMXUtilStrmcat(half.get(), rest.get())), copy(QMXUtilStrdup(input.get()));
  const Block<char> cut(QMXUtilStrdupn(input.get(), static_cast<uint32_t>(half.size())));
  require(strcmp(joined.get(), input.get()) == 0 && strcmp(copy.get(), input.get()) == 0);
  require(strcmp(cut.get(), half.get()) == 0);
  QMXUtilStrntoupper(copy.get(), static_cast<int32_t>(input.size()));
  require(QMXUtilStricmp(copy.get(), input.get()) == 0);
  QMXUtilStrntolower(copy.get(), static_cast<int32_t>(input.size()));
  require(QMXUtilStricmp(copy.get(), input.get()) == 0);

  // Lines follow one another; nothing but line ends becomes a space.
  const std::string before(input.get());
  for (char* line = input.get(); *line != '\0';) {
    uint32_t length;
    char* const next = QMXUtilStrGetLine(line, &length);
    require(next > line && input.holds(next) && length <= static_cast<size_t>(next - line));
    line = next;
  }
  for (size_t i = 0; i < before.size(); ++i) {
    const char c = input.get()[i];
    require(c == before[i] || (c == ' ' && (before[i] == '\r' || before[i] == '\n')));
  }
}

void binary(const uint8_t* data, size_t size) {
  const uint32_t count = static_cast<uint32_t>(size);
  const Block<char> hex(QMXUtil_ConvBinToStr(data, count));
  require(strlen(hex.get()) == 2 * size);
  uint8_t* const bytes = reinterpret_cast<uint8_t*>(hex.get());
  require(QMXUtil_ConvStrToBin(hex.get(), 2 * count, bytes) == count && memcmp(bytes, data, size) == 0);

  uint32_t text_size, decoded_size;
  const Block<char> text(QMXUtilBase64Encoding(data, static_cast<int32_t>(size), &text_size));
  require(text_size == (size + 2) / 3 * 4 && strlen(text.get()) == text_size);
  const Block<uint8_t> decoded(QMXUtilBase64ConvToBin(text.get(), text_size, &decoded_size));
  require(decoded_size == size && memcmp(decoded.get(), data, size) == 0);
}

void base64(const uint8_t* data, size_t size) {
  const char* const text = reinterpret_cast<const char*>(data);
  const uint32_t count = static_cast<uint32_t>(size);
  const qmxtest::Decoded expected = qmxtest::model_decoding({text, size});
  const std::unique_ptr<uint8_t[]> out(new uint8_t[expected.bytes.size()]);
  uint32_t length;
  require(QMXUtilBase64Decoding(text, out.get(), count, &length) == text + expected.stop);
  require(length == expected.bytes.size() && memcmp(out.get(), expected.bytes.data(), length) == 0);
  const std::string entries = qmxtest::model_entries({text, size});
  const std::unique_ptr<uint8_t[]> list(new uint8_t[entries.size()]);
  require(QMXUtilBase64ConvToBinWLen(text, count, list.get()) == entries.size());
  require(memcmp(list.get(), entries.data(), entries.size()) == 0);

  std::string digits(text, size);  // whatever the characters are
  const std::unique_ptr<uint8_t[]> bytes(new uint8_t[size / 2]);
  require(QMXUtil_ConvStrToBin(digits.data(), count, bytes.get()) == count / 2);
}

void start_codes(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const uint8_t* cursor = data;
  uint32_t left = static_cast<uint32_t>(size), code;
  for (;;) {
    const size_t at = bytes.find(std::string("\0\0\1", 3), size - left);
    const bool expected = at < size && size - at >= 5;
    const uint8_t* same = cursor;
    uint32_t same_left = left;
    require(QMXUtil_FindStartCode(&cursor, &left, &code) == expected && cursor + left == data + size);
    if (!expected) return;
    require(cursor == data + at && code == 0x100u + cursor[3]);
    require(QMXUtil_FindStartCode2(&same, &same_left, code) == 1 && same == cursor && same_left == left);
    ++cursor;
    --left;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t group = data[0];
  const std::unique_ptr<uint8_t[]> copy(new uint8_t[size - 1]);
  memcpy(copy.get(), data + 1, size - 1);
  switch (group) {
    case 'n':
      numbers(Text(copy.get(), size - 1));
      break;
    case 'k':
      values(Text(copy.get(), size - 1));
      break;
    case 's':
      strings(Text(copy.get(), size - 1));
      break;
    case 'b':
      binary(copy.get(), size - 1);
      break;
    case 'd':
      base64(copy.get(), size - 1);
      break;
    default:
      start_codes(copy.get(), size - 1);
      break;
  }
  return 0;
}
