#include "kernel_test.h"

#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

namespace lscoredb_test {
namespace {

std::string Described(std::uint32_t status) {
  return std::to_string(status) + " (" + lscoredb_status_text(status) + ")";
}

// A null result is an empty optional, every other failure an exception.
template <typename Value, typename Getter>
std::optional<Value> Read(char const* call, Getter getter, std::uint64_t context, Oid oid,
                          LayoutId layout, std::uint32_t column) {
  Value value{};
  std::uint32_t const status = getter(context, oid, layout, column, &value);
  if (status == LORV_STATUS_NULL) return std::nullopt;
  Check(call, status);
  return value;
}

Text TextOf(LORV_STRING const* record) { return Text(record->units, record->length); }

}  // namespace

testing::AssertionResult StatusIs(char const*, char const* call_text, std::uint32_t expected,
                                  std::uint32_t actual) {
  if (expected == actual) return testing::AssertionSuccess();
  return testing::AssertionFailure() << call_text << "\n  gave     " << Described(actual)
                                     << "\n  expected " << Described(expected);
}

Unexpected::Unexpected(char const* call, std::uint32_t status)
    : std::runtime_error(std::string(call) + " gave " + Described(status)), status_(status) {}

void Check(char const* call, std::uint32_t status) {
  if (status != LORV_STATUS_OK) throw Unexpected(call, status);
}

lscoredb_options DefaultOptions() {
  lscoredb_options options{};
  options.size = sizeof options;
  return options;
}

lscoredb_options NoSync() {
  lscoredb_options options = DefaultOptions();
  options.durability = LSCOREDB_NO_SYNC;
  return options;
}

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kernel_test_XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory");
  path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

namespace {

std::uint32_t Note(void* user, lscoredb_finding const* finding) {
  EXPECT_EQ(finding->size, sizeof(lscoredb_finding));
  EXPECT_GT(std::string(finding->text).size(), 10U);
  static_cast<std::vector<Finding>*>(user)->push_back(
      {finding->kind, finding->object, finding->index, finding->layout, finding->column});
  return 0;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, Finding const& finding) {
  return out << "kind " << finding.kind << ", object " << finding.object << ", index "
             << finding.index << ", layout " << finding.layout << ", column " << finding.column;
}

std::vector<Finding> Findings(lscoredb* database, std::uint32_t flags) {
  std::vector<Finding> findings;
  std::uint32_t const status = lscoredb_check(database, flags, Note, &findings);
  EXPECT_STATUS(findings.empty() ? 0 : LSCOREDB_DAMAGED, status);
  return findings;
}

Database::Database() { Check("open", lscoredb_open(nullptr, nullptr, &database_)); }

Database::Database(lscoredb_options const& options) {
  Check("open", lscoredb_open(nullptr, &options, &database_));
}

Database::Database(std::string const& directory, lscoredb_options const& options) {
  Check("open", lscoredb_open(directory.c_str(), &options, &database_));
}

Database::~Database() {
  if (database_ != nullptr) {
    ExpectSound();
    EXPECT_STATUS(0, lscoredb_close(database_));
  }
}

void Database::ExpectSound() const {
  if (damage_expected_) return;
  EXPECT_EQ(Findings(database_), std::vector<Finding>());
}

void Database::Close() {
  ExpectSound();
  Check("close", lscoredb_close(database_));
  database_ = nullptr;
}

std::vector<LORVI_COLUMN_DEFINITION> Definitions(Columns const& columns) {
  std::vector<LORVI_COLUMN_DEFINITION> definitions;
  for (Column const& column : columns)
    definitions.push_back({static_cast<std::uint8_t>(column.type),
                           static_cast<std::uint8_t>(column.nullable), column.token});
  definitions.push_back({0, 0, 0});
  return definitions;
}

Session::Session(Database const& database) {
  Check("context_open", lscoredb_context_open(database.get(), &context_));
}

Session::~Session() {
  if (context_ != 0) {
    EXPECT_STATUS(0, lscoredb_context_close(context_));
  }
}

void Session::Close() {
  Check("context_close", lscoredb_context_close(context_));
  context_ = 0;
}

void Session::Begin() { Check("begin", lscoredb_begin(context_, LSCOREDB_READ_WRITE)); }

void Session::BeginReadOnly() {
  Check("begin", lscoredb_begin(context_, LSCOREDB_READ_ONLY_TRANSACTION));
}

void Session::Commit() { Check("commit", lscoredb_commit(context_)); }
void Session::Rollback() { Check("rollback", lscoredb_rollback(context_)); }

LayoutId Session::CreateLayout(std::uint64_t token, Columns const& columns, LayoutId base) {
  LayoutId layout = 0;
  Check("create_layout", lorvi_context_create_layout(context_, token, base,
                                                     Definitions(columns).data(), 0, &layout));
  return layout;
}

LORVI_LAYOUT_INFO Session::LayoutInfo(LayoutId layout) {
  LORVI_LAYOUT_INFO info{};
  Check("get_layout_info", lorvi_context_get_layout_info(context_, layout, &info));
  return info;
}

LORVI_COLUMN_INFO Session::ColumnInfo(LayoutId layout, std::uint16_t column) {
  LORVI_COLUMN_INFO info{};
  Check("get_column_info", lorvi_context_get_column_info(context_, layout, column, &info));
  return info;
}

std::vector<LayoutId> Session::LayoutsByToken(std::uint64_t token) {
  std::vector<LORVI_LAYOUT_INFO> infos(64);
  std::uint32_t count = 64;
  Check("get_layout_infos_by_token",
        lorvi_context_get_layout_infos_by_token(context_, token, &count, infos.data()));
  std::vector<LayoutId> layouts;
  for (std::uint32_t i = 0; i < count; ++i) layouts.push_back(infos.at(i).layout_handle);
  return layouts;
}

std::uint32_t Session::TryCreateIndex(std::uint64_t token, Text const& setspec,
                                      Columns const& columns, IndexTraits traits, IndexId* out) {
  return lorvi_context_create_index(context_, token, setspec.c_str(), Definitions(columns).data(),
                                    traits.descending, traits.unique ? 1 : 0, out);
}

IndexId Session::CreateIndex(std::uint64_t token, Text const& setspec, Columns const& columns,
                             IndexTraits traits) {
  IndexId index = 0;
  Check("create_index", TryCreateIndex(token, setspec, columns, traits, &index));
  return index;
}

void Session::DropIndex(IndexId index) {
  Check("drop_index", lorvi_context_drop_index(context_, index));
}

std::vector<IndexId> Session::IndexesByToken(std::uint64_t token) {
  std::vector<LORVI_INDEX_INFO> infos(64);
  std::uint32_t count = 64;
  std::uint32_t const status =
      lorvi_context_get_index_infos_by_token(context_, token, &count, infos.data());
  if (status == LORV_STATUS_NO_INDEX) return {};
  Check("get_index_infos_by_token", status);
  std::vector<IndexId> indexes;
  for (std::uint32_t i = 0; i < count; ++i) indexes.push_back(infos.at(i).index_id);
  return indexes;
}

Oid Session::InsertBare(LayoutId layout) {
  Oid oid = 0;
  Check("insert", lorv_context_insert(context_, layout, &oid));
  return oid;
}

Oid Session::Insert(LayoutId layout, char16_t const* setspec) {
  Oid const oid = InsertBare(layout);
  PutSetspec(oid, setspec);
  return oid;
}

void Session::InsertWithId(LayoutId layout, Oid oid) {
  Check("insert_with_id", lorvi_context_insert_with_id(context_, layout, oid));
}

void Session::Delete(Oid oid) { Check("delete", lorv_context_delete(context_, oid, 0)); }

bool Session::Exists(Oid oid) {
  std::uint64_t addr = 0;
  std::uint32_t const status = lorv_context_lookup(context_, oid, &addr);
  if (status == LORV_STATUS_NO_OBJECT) return false;
  Check("lookup", status);
  return true;
}

LayoutId Session::LayoutOf(Oid oid) {
  std::uint64_t addr = 0;
  Check("lookup", lorv_context_lookup(context_, oid, &addr));
  return static_cast<LayoutId>(addr & 0xFFFF);
}

std::optional<std::int64_t> Session::Long(Oid oid, std::uint32_t column, LayoutId layout) {
  return Read<std::int64_t>("get_long", lorv_context_get_long, context_, oid, layout, column);
}

std::optional<std::uint64_t> Session::ULong(Oid oid, std::uint32_t column, LayoutId layout) {
  return Read<std::uint64_t>("get_ulong", lorv_context_get_ulong, context_, oid, layout, column);
}

std::optional<std::int64_t> Session::Decimal(Oid oid, std::uint32_t column, LayoutId layout) {
  return Read<std::int64_t>("get_decimal", lorv_context_get_decimal, context_, oid, layout, column);
}

std::optional<float> Session::Float(Oid oid, std::uint32_t column, LayoutId layout) {
  return Read<float>("get_float", lorv_context_get_float, context_, oid, layout, column);
}

std::optional<double> Session::Double(Oid oid, std::uint32_t column, LayoutId layout) {
  return Read<double>("get_double", lorv_context_get_double, context_, oid, layout, column);
}

std::optional<Text> Session::String(Oid oid, std::uint32_t column, LayoutId layout) {
  auto const record =
      Read<LORV_STRING*>("get_string", lorv_context_get_string, context_, oid, layout, column);
  if (!record) return std::nullopt;
  return TextOf(*record);
}

std::optional<Bytes> Session::Binary(Oid oid, std::uint32_t column, LayoutId layout) {
  auto const record =
      Read<LORV_BINARY*>("get_binary", lorv_context_get_binary, context_, oid, layout, column);
  if (!record) return std::nullopt;
  std::uint8_t const* const bytes = (*record)->bytes;  // more of them than the record declares
  return Bytes(bytes, bytes + (*record)->length);
}

std::optional<Oid> Session::RefId(Oid oid, std::uint32_t column, LayoutId layout) {
  return Read<Oid>("get_refid", lorvi_context_get_refid, context_, oid, layout, column);
}

std::optional<LORV_REFERENCE> Session::Reference(Oid oid, std::uint32_t column, LayoutId layout) {
  return Read<LORV_REFERENCE>("get_reference", lorv_context_get_reference, context_, oid, layout,
                              column);
}

std::optional<Text> Session::Setspec(Oid oid) {
  LORV_STRING* record = nullptr;
  std::uint32_t const status = lorv_context_get_setspec(context_, oid, 0, &record);
  if (status == LORV_STATUS_NULL) return std::nullopt;
  Check("get_setspec", status);
  return TextOf(record);
}

void Session::PutLong(Oid oid, std::uint32_t column, std::int64_t value, LayoutId layout) {
  Check("put_long", lorv_context_put_long(context_, oid, layout, column, value));
}

void Session::PutULong(Oid oid, std::uint32_t column, std::uint64_t value, LayoutId layout) {
  Check("put_ulong", lorv_context_put_ulong(context_, oid, layout, column, value));
}

void Session::PutDecimal(Oid oid, std::uint32_t column, std::int64_t millionths, LayoutId layout) {
  Check("put_decimal", lorv_context_put_decimal(context_, oid, layout, column, millionths));
}

void Session::PutFloat(Oid oid, std::uint32_t column, float value, LayoutId layout) {
  Check("put_float", lorv_context_put_float(context_, oid, layout, column, value));
}

void Session::PutDouble(Oid oid, std::uint32_t column, double value, LayoutId layout) {
  Check("put_double", lorv_context_put_double(context_, oid, layout, column, value));
}

void Session::PutString(Oid oid, std::uint32_t column, Text const& text, LayoutId layout) {
  Check("put_string", lorv_context_put_string(context_, oid, layout, column, text.c_str()));
}

void Session::PutBinary(Oid oid, std::uint32_t column, Bytes const& bytes, LayoutId layout) {
  // An empty vector may have no memory, and no memory means null to the kernel.
  void const* const data = bytes.empty() ? static_cast<void const*>("") : bytes.data();
  Check("put_binary", lorv_context_put_binary(context_, oid, layout, column, data, bytes.size()));
}

void Session::PutReference(Oid oid, std::uint32_t column, Oid target, LayoutId layout) {
  Check("put_reference", lorv_context_put_reference(context_, oid, layout, column, target, 0));
}

void Session::PutDefault(Oid oid, std::uint32_t column, LayoutId layout) {
  Check("put_default", lorv_context_put_default(context_, oid, layout, column));
}

void Session::PutSetspec(Oid oid, Text const& setspec) {
  Check("put_setspec", lorv_context_put_setspec(context_, oid, 0, setspec.c_str()));
}

LORV_STRING* Session::StringRecord(Oid oid, std::uint32_t column) {
  LORV_STRING* record = nullptr;
  Check("get_string", lorv_context_get_string(context_, oid, 0, column, &record));
  return record;
}

LORV_BINARY* Session::BinaryRecord(Oid oid, std::uint32_t column) {
  LORV_BINARY* record = nullptr;
  Check("get_binary", lorv_context_get_binary(context_, oid, 0, column, &record));
  return record;
}

Oids Session::Scan(IndexId index, Key const& from, Key const& to) {
  return Scan(index, from, to, LORV_ITERATOR_FORWARD);
}

Oids Session::ScanBack(IndexId index, Key const& from, Key const& to) {
  return Scan(index, from, to, LORV_ITERATOR_REVERSE);
}

Oids Session::Scan(IndexId index, Key const& from, Key const& to, std::uint32_t flags) {
  return Scanner(*this, index, from, to, flags).Rest();
}

Scanner::Scanner(Session& session, IndexId index, Key const& from, Key const& to,
                 std::uint32_t flags) {
  Check("create_iterator",
        lorv_context_create_iterator(session.context(), index, flags, from.Bytes().data(),
                                     to.Bytes().data(), &handle_));
}

Scanner::~Scanner() {
  if (handle_ != 0) {
    EXPECT_STATUS(0, Free());
  }
}

LORV_REFERENCE Scanner::NextReference() {
  LORV_REFERENCE reference{};
  Check("iterator_next", lorv_iterator_next(handle_, &reference));
  return reference;
}

Oids Scanner::Rest() {
  Oids oids;
  for (Oid oid = Next(); oid != 0; oid = Next()) oids.push_back(oid);
  return oids;
}

std::uint32_t Scanner::Free() { return lorv_iterator_free(std::exchange(handle_, 0)); }

void InParallel(int count, std::function<void(int)> const& body) {
  std::mutex mutex;
  std::exception_ptr failure;
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&, i] {
      try {
        body(i);
      } catch (...) {
        std::lock_guard const lock(mutex);
        failure = std::current_exception();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  if (failure) std::rethrow_exception(failure);
}

void KernelTest::Restart() {
  session_.Commit();
  session_.Begin();
}

}  // namespace lscoredb_test
