#include "result_buffers.h"

#include <algorithm>
#include <cstddef>
#include <limits>

#include "bytes.h"
#include "status.h"

namespace lscore {
namespace {

constexpr std::size_t kTextHead = offsetof(LORV_STRING, units);
constexpr std::size_t kBinaryHead = offsetof(LORV_BINARY, bytes);
constexpr std::size_t kKeptSources = 4096;  // the list keeps its memory for the next transaction

// A value is identified by the address of its bytes, which stay where they are until ForgetSince or
// Clear. All empty values share one copy.
std::uint64_t SourceOf(std::string_view bytes) {
  return bytes.empty() ? 1
                       : static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(bytes.data()));
}

std::uint32_t CheckedLength(std::size_t length) {
  if (length > std::numeric_limits<std::uint32_t>::max()) Throw(LSCOREDB_TOO_LARGE);
  return static_cast<std::uint32_t>(length);
}

}  // namespace

// Makes room in the list first: an entry of the map that the list lacked would never be dropped.
template <typename Make>
char* ResultBuffers::FindOrMake(std::string_view bytes, Make&& make) {
  std::uint64_t const source = SourceOf(bytes);
  if (char* const* const found = by_source_.Find(source)) return *found;
  if (made_.size() == made_.capacity()) made_.reserve(made_.size() * 2 + 16);
  char* const copy = make();
  by_source_.Insert(source, copy);
  made_.push_back(source);
  return copy;
}

LORV_STRING* ResultBuffers::Text(PackedText text) {
  std::uint32_t const length = CheckedLength(UnitCount(text));
  char* const copy = FindOrMake(text.bytes, [&] {
    char* const made = arena_.Allocate(kTextHead + (std::size_t{length} + 1) * sizeof(char16_t));
    auto* const units = reinterpret_cast<char16_t*>(made + kTextHead);
    StoreAt(made, length);
    Unpack(text, units);
    units[length] = 0;
    return made;
  });
  return reinterpret_cast<LORV_STRING*>(copy);
}

LORV_BINARY* ResultBuffers::Binary(std::string_view bytes) {
  std::uint32_t const length = CheckedLength(bytes.size());
  char* const copy = FindOrMake(bytes, [&] {
    char* const made = arena_.Allocate(kBinaryHead + bytes.size() + 4);
    StoreAt(made, length);
    std::copy(bytes.begin(), bytes.end(), made + kBinaryHead);
    return made;
  });
  return reinterpret_cast<LORV_BINARY*>(copy);
}

void ResultBuffers::ForgetSince(std::size_t made) {
  Drop(made);
  for (Scope& scope : scopes_) scope.made = std::min(scope.made, made);
}

void ResultBuffers::BeginScope() { scopes_.push_back({arena_.mark(), made_.size()}); }

bool ResultBuffers::EndScope() {
  if (scopes_.empty()) return false;
  Drop(scopes_.back().made);
  arena_.ReleaseTo(scopes_.back().mark);
  scopes_.pop_back();
  return true;
}

void ResultBuffers::Drop(std::size_t down_to) {
  for (; made_.size() > down_to; made_.pop_back()) by_source_.Erase(made_.back());
}

void ResultBuffers::Clear() {
  by_source_.Clear();
  if (made_.capacity() > kKeptSources) made_ = std::vector<std::uint64_t>();
  made_.clear();
  scopes_.clear();
  arena_.Release();
}

}  // namespace lscore
