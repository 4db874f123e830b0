// What a property handle adds to the kernel's call beneath it.

#include <optional>
#include <sagleme/host.hpp>
#include <vector>

#include "sections.h"
#include "turns.h"

namespace bench {
namespace {

// A turn is short pieces, of which the quickest counts: what disturbs it only adds to it.
constexpr int kPieces = 50;
constexpr int kReads = 5000;  // in a piece
constexpr std::int64_t kValue = 0x5A6C3E71;

void Check(std::uint32_t status) { sagleme::detail::CheckKernel(status); }

void MakeTable(sagleme::Context const& context) {
  sagleme::Transaction transaction(context);
  std::vector<sagleme::ColumnSpec> const columns{{u"Other", sagleme::Type::kLong},
                                                 {u"Value", sagleme::Type::kLong}};
  sagleme::CreateTable(transaction, u"Bench.Read", u"", columns);
  transaction.Commit();
}

// One object, which is read over and over: in the nearest cache all the time.
class Hot {
 public:
  explicit Hot(sagleme::Context const& context) : context_(context.id()) {
    Make(context);
    reading_.emplace(context, sagleme::Access::kReadOnly);
    column_ = FindColumn();
  }

  // Nanoseconds for one read.
  double ThroughHandle() const {
    return ForEach([this](std::int64_t* value) {
      return lorv_crud_ReadLong(context_, handle_, oid_, addr_, value);
    });
  }
  double FromKernel() const {
    return ForEach([this](std::int64_t* value) {
      return lorv_context_get_long(context_, oid_, addr_, column_, value);
    });
  }

 private:
  void Make(sagleme::Context const& context) {
    sagleme::RawTransaction transaction(context);
    CreateInfo* create = nullptr;
    Check(lorv_crud_GetCreateHandle(context_, u"Bench.Read", &create));
    Check(lorv_crud_GetPropertyHandle(context_, u"Bench.Read", u"Value", &handle_));
    Check(lorv_crud_CreateObject(context_, create, &oid_, &addr_));
    Check(lorv_crud_WriteLong(context_, handle_, oid_, addr_, kValue));
    transaction.Commit();
  }
  // The handle knows it but has no function for it.
  std::uint32_t FindColumn() const {
    for (std::uint32_t column = 2; column < 16; ++column) {
      std::int64_t value = 0;
      std::uint32_t const status = lorv_context_get_long(context_, oid_, addr_, column, &value);
      if (status == 0 && value == kValue) return column;
    }
    throw std::runtime_error("no column holds the value");
  }

  template <typename Read>
  static double ForEach(Read&& read) {
    double best = 0;
    for (int piece = 0; piece < kPieces; ++piece) {
      double const time = Piece(read);
      if (piece == 0 || time < best) best = time;
    }
    return best / kReads;
  }
  template <typename Read>
  static double Piece(Read&& read) {
    std::int64_t sum = 0;
    double const time = Nanoseconds([&] {
      for (int i = 0; i < kReads; ++i) {
        std::int64_t value = 0;
        if (read(&value) != 0) return;
        sum += value;
      }
    });
    if (sum != kValue * kReads) throw std::runtime_error("read something else");
    return time;
  }

  std::uint64_t context_;
  std::optional<sagleme::RawTransaction> reading_;
  PropertyAccessInfo* handle_ = nullptr;
  std::uint64_t oid_ = 0;
  std::uint64_t addr_ = 0;
  std::uint32_t column_ = 0;
};

}  // namespace

std::vector<Result> MeasureHandles(Settings const& settings) {
  sagleme::Database const database =
      sagleme::Database::Create(settings.Directory("handles"), {}, sagleme::Options());
  sagleme::Context const context(database);
  MakeTable(context);
  Hot const hot(context);
  Result result =
      MakeComparison("read one long of one object, beside the kernel's call", "ns", "kernel", 1.1);
  for (int round = 0; round < settings.rounds; ++round) {
    MeasureRound(
        result, [&] { return hot.ThroughHandle(); }, [&] { return hot.FromKernel(); });
  }
  return {result};
}

}  // namespace bench
