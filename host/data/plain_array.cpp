#include "data/plain_array.h"

namespace sagleme {
namespace {

using Kind = RowValue::Kind;

// Returns zero at the end: no item begins or continues with it.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : at_(text.data()), end_(at_ + text.size()) {}

  char const* at() const { return at_; }
  char Peek() const { return at_ == end_ ? '\0' : *at_; }
  bool Take(char wanted) {
    if (Peek() != wanted || at_ == end_) return false;
    ++at_;
    return true;
  }
  void SkipBlanks() {
    while (Peek() == ' ' || Peek() == '\t') ++at_;
  }

  bool TakeItem(RowValue& value) {
    switch (Peek()) {
      case '"':
        return TakeText(value);
      case 't':
        return TakeWord("true", Kind::kBool, value);
      case 'f':
        return TakeWord("false", Kind::kBool, value);
      case 'n':
        return TakeWord("null", Kind::kNull, value);
      default:
        return TakeNumber(value);
    }
  }

 private:
  bool TakeText(RowValue& value) {
    char const* const begin = ++at_;
    while (at_ != end_ && static_cast<unsigned char>(*at_) >= ' ' && *at_ != '"' && *at_ != '\\') {
      ++at_;
    }
    value = {0, Kind::kText, {begin, static_cast<std::size_t>(at_ - begin)}, {}};
    return Take('"') && !HasSurrogate(value.text);
  }
  // JSON has no surrogates in UTF-8, but stored texts may have them.
  static bool HasSurrogate(std::string_view text) {
    for (auto at = text.find('\xED'); at != text.npos; at = text.find('\xED', at + 1)) {
      if (at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) >= 0xA0) return true;
    }
    return false;
  }

  bool TakeWord(std::string_view word, Kind kind, RowValue& value) {
    if (!std::string_view(at_, static_cast<std::size_t>(end_ - at_)).starts_with(word)) {
      return false;
    }
    value = {0, kind, {at_, kind == Kind::kNull ? 0 : word.size()}, {}};
    at_ += word.size();
    return true;
  }

  // "-0" is left to the general reader, which takes it for an integer without a sign.
  bool TakeNumber(RowValue& value) {
    char const* const begin = at_;
    Take('-');
    if (!Take('0') && !TakeDigits()) return false;
    if (Take('.') && !TakeDigits()) return false;
    if (Take('e') || Take('E')) {
      if (!Take('-')) Take('+');
      if (!TakeDigits()) return false;
    }
    value = {0, Kind::kNumber, {begin, static_cast<std::size_t>(at_ - begin)}, {}};
    return value.text != "-0";
  }
  bool TakeDigits() {
    char const* const begin = at_;
    while (Peek() >= '0' && Peek() <= '9') ++at_;
    return at_ != begin;
  }

  char const* at_;
  char const* end_;
};

}  // namespace

bool TakePlainArray(std::string_view& text, std::vector<RowValue>& values) {
  values.clear();
  Scanner scanner(text);
  scanner.SkipBlanks();
  if (!scanner.Take(']')) {
    do {
      scanner.SkipBlanks();
      if (!scanner.TakeItem(values.emplace_back())) return false;
      scanner.SkipBlanks();
    } while (scanner.Take(','));
    if (!scanner.Take(']')) return false;
  }
  text.remove_prefix(static_cast<std::size_t>(scanner.at() - text.data()));
  return true;
}

}  // namespace sagleme
