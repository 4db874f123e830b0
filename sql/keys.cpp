#include "keys.h"

#include "failure.h"

namespace sagleme::sql {
namespace {

constexpr std::uint32_t kKeyTooLong = SAGLEME_NAME_TOO_LONG;

void Write(metalayer::Key& key, Bound const& bound) {
  switch (bound.kind) {
    case Bound::Kind::kNull:
      key.Null();
      break;
    case Bound::Kind::kWord:
      key.ULong(bound.word);
      break;
    case Bound::Kind::kText:
      key.Text(bound.text.c_str());
      break;
    case Bound::Kind::kAboveText:
      key.TextUpperBound(bound.text.c_str());
      break;
  }
}

}  // namespace

KeyBytes WriteKey(std::function<void(metalayer::Key&)> const& write) {
  KeyBytes bytes(16);
  for (;; bytes.resize(bytes.size() * 4)) {
    try {
      metalayer::Key key(
          db_util::KeyBuf(reinterpret_cast<unsigned char*>(bytes.data()), 8 * bytes.size()));
      write(key);
      key.UpdateHeader();
      return bytes;
    } catch (db_util::db_exception const& failure) {
      if (failure.code() != kKeyTooLong) detail::CheckKernel(failure.code());
    }
  }
}

// A column that runs backwards has its bounds the other way round.
KeyRange RangeOf(ShapeIndex const& index, std::span<Span const* const> spans) {
  auto const side = [&](bool first) {
    return WriteKey([&](metalayer::Key& key) {
      for (std::size_t i = 0; i < spans.size(); ++i) {
        bool const low = first == index.parts[i].ascending;
        Write(key, low ? spans[i]->first : spans[i]->last);
      }
    });
  };
  KeyBytes first = side(true);
  bool const point = !spans.empty() && spans.back()->IsPoint();
  KeyBytes last = point ? first : side(false);
  return {std::move(first), std::move(last)};
}

KeyRange RangeOfSet(Table const& table, bool only) {
  char16_t const* const setspec = table.setspec.c_str();
  if (only) {
    auto const write = [setspec](metalayer::Key& key) { key.Text(setspec); };
    return {WriteKey(write), WriteKey(write)};
  }
  return {WriteKey([setspec](metalayer::Key& key) { key.SetspecLowerBound(setspec); }),
          WriteKey([setspec](metalayer::Key& key) { key.SetspecUpperBound(setspec); })};
}

}  // namespace sagleme::sql
