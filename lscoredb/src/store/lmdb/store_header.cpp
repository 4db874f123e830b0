#include "store_header.h"

#include <unistd.h>

#include <bit>
#include <cerrno>
#include <ctime>

#include "bytes.h"
#include "status.h"
#include "store_pages.h"

namespace lscore {
namespace pages {
namespace {

constexpr std::uint32_t kMark = 0xBEEFC0DE;
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kSmallestPage = 512;
constexpr std::size_t kLargestPage = 65536;
constexpr std::uint64_t kMostBytes = std::uint64_t{1} << 47;  // what a process can map

Header ReadHeader(int file, std::uint64_t offset) {
  std::string bytes;
  ReadAt(file, offset, kPageHead + kHeaderSize, bytes);
  if (bytes.size() < kPageHead + kHeaderSize) Throw(LSCOREDB_NOT_A_DATABASE);
  char const* const head = bytes.data() + kPageHead;
  bool const ours = (Load<std::uint16_t>(bytes.data() + 10) & kHeaderPage) != 0 &&
                    Load<std::uint32_t>(head) == kMark && Load<std::uint32_t>(head + 4) == kVersion;
  if (!ours) Throw(LSCOREDB_NOT_A_DATABASE);
  Header header;
  header.page_size = Load<std::uint32_t>(head + 24);
  header.free = ReadTree(head + 24);
  header.trees = ReadTree(head + 72);
  header.last_page = Load<std::uint64_t>(head + 120);
  header.commit = Load<std::uint64_t>(head + 128);
  bool const page_holds = std::has_single_bit(header.page_size) &&
                          header.page_size >= kSmallestPage && header.page_size <= kLargestPage;
  if (!page_holds) Throw(LSCOREDB_DAMAGED);
  return header;
}

bool TreeHolds(TreeRecord const& tree, std::uint64_t last_page) {
  if (tree.root == kNoPage) return tree.depth == 0 && tree.entries == 0;
  return tree.depth > 0 && tree.depth <= kMaxDepth && tree.root >= kHeaderPages &&
         tree.root <= last_page;
}

bool HeaderHolds(Header const& header) {
  return header.last_page < kMostBytes / header.page_size && header.last_page > 0 &&
         header.free.key_kind == kIntegerKeys && header.trees.key_kind == kByteKeys &&
         TreeHolds(header.free, header.last_page) && TreeHolds(header.trees, header.last_page);
}

// The headers must be of the last two commits, each in the page that its number says; a file
// without commits has 0 twice. A damaged number would otherwise bring back an older state.
bool CommitsHold(std::array<Header, 2> const& headers) {
  std::uint64_t const even = headers[0].commit;
  std::uint64_t const odd = headers[1].commit;
  if (even == 0 && odd == 0) return true;
  return even % 2 == 0 && odd % 2 == 1 && (even + 1 == odd || odd + 1 == even);
}

// A file never becomes shorter.
bool HeadersHold(std::array<Header, 2> const& headers) {
  bool const first = headers[0].commit > headers[1].commit;
  Header const& newest = headers[first ? 0 : 1];
  Header const& older = headers[first ? 1 : 0];
  return newest.page_size == older.page_size && CommitsHold(headers) && HeaderHolds(newest) &&
         newest.last_page >= older.last_page;
}

}  // namespace

TreeRecord ReadTree(char const* bytes) {
  TreeRecord tree;
  tree.key_kind = Load<std::uint16_t>(bytes + 4);
  tree.depth = Load<std::uint16_t>(bytes + 6);
  tree.branch_pages = Load<std::uint64_t>(bytes + 8);
  tree.leaf_pages = Load<std::uint64_t>(bytes + 16);
  tree.overflow_pages = Load<std::uint64_t>(bytes + 24);
  tree.entries = Load<std::uint64_t>(bytes + 32);
  tree.root = Load<std::uint64_t>(bytes + 40);
  return tree;
}

std::array<Header, 2> ReadHeaders(int file) {
  Header const first = ReadHeader(file, 0);
  return {first, ReadHeader(file, first.page_size)};
}

std::optional<Header> FindHeader(int file, std::uint64_t commit) {
  for (Header const& header : ReadHeaders(file)) {
    if (header.commit == commit) return header;
  }
  return std::nullopt;
}

void ReadAt(int file, std::uint64_t offset, std::size_t size, std::string& bytes) {
  bytes.resize(size);
  std::size_t filled = 0;
  while (filled < size) {
    ssize_t const got =
        pread(file, bytes.data() + filled, size - filled, static_cast<off_t>(offset + filled));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) Throw(LSCOREDB_IO_ERROR);
    if (got == 0) break;
    filled += static_cast<std::size_t>(got);
  }
  bytes.resize(filled);
}

}  // namespace pages

// A header that another process is writing may look damaged for a moment, so it is read again for
// up to a second.
void CheckFileHeader(int file, bool others_write) {
  constexpr int kAttempts = 1000;
  constexpr timespec kPause{0, 1'000'000};
  std::string first;
  pages::ReadAt(file, 0, 1, first);
  if (first.empty()) return;
  for (int attempt = 0; attempt < (others_write ? kAttempts : 1); ++attempt) {
    if (pages::HeadersHold(pages::ReadHeaders(file))) return;
    if (others_write) nanosleep(&kPause, nullptr);
  }
  Throw(LSCOREDB_DAMAGED);
}

}  // namespace lscore
