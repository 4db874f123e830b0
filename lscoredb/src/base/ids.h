#ifndef LSCOREDB_SRC_IDS_H
#define LSCOREDB_SRC_IDS_H

// The numbers that name things. They are distinct types, so that none is taken for another; Raw
// gives the number itself where it is stored or handed out.

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace lscore {

enum class LayoutNumber : std::uint16_t {};
enum class IndexId : std::uint64_t {};
enum class ObjectId : std::uint64_t {};
enum class Token : std::uint64_t {};
// The number of a committed state of the store; rows carry that of the commit that wrote them.
enum class CommitId : std::uint64_t {};

template <typename Id>
constexpr auto Raw(Id id) {
  return static_cast<std::underlying_type_t<Id>>(id);
}

inline constexpr LayoutNumber kNoLayout{0};
inline constexpr std::size_t kLayoutNumbers = 65536;  // with kNoLayout
inline constexpr ObjectId kNoObject{0};

// The layout named by the address word of a reference.
constexpr LayoutNumber LayoutOf(std::uint64_t addr) {
  return LayoutNumber{static_cast<std::uint16_t>(addr & 0xFFFF)};
}

}  // namespace lscore

#endif
