// Keys of the contract's byte format, and ordered identities: any bytes, read with any columns.

#include <lscoredb/lscoredb.h>

#include "input.h"
#include "keys.h"

using sagleme_fuzz::Input;
using sagleme_fuzz::Require;

namespace {

// A byte that no key goes on with, so often that the longest field ends in it.
constexpr std::size_t kStops = 40;
constexpr std::uint8_t kStop = 0xC0;

void ReadKey(Input& input) {
  std::vector<lscore::KeyColumn> columns(input.Below(5));
  for (lscore::KeyColumn& column : columns) {
    column = {static_cast<std::uint8_t>(1 + input.Below(9)), input.Flag()};
  }
  std::vector<std::uint8_t> key = input.Rest();
  key.insert(key.end(), kStops, kStop);
  key.shrink_to_fit();  // what lies behind is not the reader's
  lscore::KeyBytes out = "before";
  bool const good = lscore::AppendContractKey(out, key.data(), columns);
  Require(good || out == "before", "a key that is refused leaves the output alone");
  Require(out.starts_with("before"), "a key is appended");
  lscore::KeyBytes again;
  Require(lscore::AppendContractKey(again, key.data(), columns) == good,
          "keys read the same twice");
  Require(!good || out.substr(6) == again, "keys read the same twice");
}

void ReadId(Input& input) {
  std::vector<std::uint8_t> const bytes = input.Rest();
  std::string_view const view(reinterpret_cast<char const*>(bytes.data()), bytes.size());
  std::uint64_t id = 0;
  std::size_t const read = lscore::ReadOrderedId(view, &id);
  Require(read <= bytes.size(), "no more is read than there is");
  if (read == 0) return;
  lscore::KeyBytes written;
  lscore::AppendOrderedId(written, id);
  Require(written == view.substr(0, read), "an identity has one form");
}

void CompareTexts(Input& input) {
  std::u16string const one = input.Text(40);
  std::u16string const other = input.Text(40);
  bool const descending = input.Flag();
  lscore::KeyBytes one_key;
  lscore::KeyBytes other_key;
  lscore::AppendText(one_key, one, descending);
  lscore::AppendText(other_key, other, descending);
  // Both end at their first zero unit.
  int const order = std::u16string(one.c_str()).compare(other.c_str());
  int const found = one_key.compare(other_key);
  Require((order < 0) == (descending ? found > 0 : found < 0), "keys are in the order of texts");
  Require((order == 0) == (found == 0), "equal keys are those of equal texts");
}

void CompareBinaries(Input& input) {
  std::vector<std::uint8_t> const one = input.Bytes(40);
  std::vector<std::uint8_t> const other = input.Bytes(40);
  lscore::KeyBytes one_key;
  lscore::KeyBytes other_key;
  lscore::AppendBinary(one_key, one, false);
  lscore::AppendBinary(other_key, other, false);
  Require((one < other) == (one_key < other_key), "keys are in the order of bytes");
  Require((one == other) == (one_key == other_key), "equal keys are those of equal bytes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  Input input(data, size);
  switch (input.Below(4)) {
    case 0:
      ReadKey(input);
      break;
    case 1:
      ReadId(input);
      break;
    case 2:
      CompareTexts(input);
      break;
    default:
      CompareBinaries(input);
  }
  return 0;
}
