#include <optional>
#include <vector>

#include "jobs/heeded.h"
#include "parts.h"

namespace sagleme {
namespace {

// A finding of the kernel, with its text.
struct KernelFinding {
  lscoredb_finding what{};
  std::string text;
};
using KernelFindings = std::vector<KernelFinding>;

std::uint32_t Keep(void* user, lscoredb_finding const* finding) {
  static_cast<KernelFindings*>(user)->push_back({*finding, finding->text});
  return 0;
}

// A share of a database that is given back.
class Kernel {
 public:
  explicit Kernel(std::string const& directory) {
    lscoredb_options options{};
    options.size = sizeof options;
    options.log = LSCOREDB_SAME_LOG;
    detail::CheckOpened(lscoredb_open(directory.c_str(), &options, &handle_), directory);
  }
  ~Kernel() { lscoredb_close(handle_); }
  Kernel(Kernel const&) = delete;
  Kernel& operator=(Kernel const&) = delete;

  KernelFindings Check(checks::Progress& progress) const {
    KernelFindings findings;
    auto const status =
        progress.Watched([&] { return lscoredb_check(handle_, 0, Keep, &findings); });
    if (status != LSCOREDB_DAMAGED) detail::CheckKernel(status);
    return findings;
  }

 private:
  lscoredb* handle_ = nullptr;
};

char const* RuleOf(std::uint32_t kind) {
  switch (kind) {
    case LSCOREDB_FINDING_PAGES:
      return "pages";
    case LSCOREDB_FINDING_DEFINITION:
      return "definition";
    case LSCOREDB_FINDING_LAYOUT:
      return "layout";
    case LSCOREDB_FINDING_INDEX:
      return "index";
    case LSCOREDB_FINDING_COUNT:
      return "count";
    case LSCOREDB_FINDING_SET_CHANGE:
      return "set change";
    case LSCOREDB_FINDING_NEXT_ID:
      return "identity";
    case LSCOREDB_FINDING_OBJECT:
    case LSCOREDB_FINDING_OVERFLOW:
      return "object";
    default:
      return "entries";
  }
}

// Whether nothing else can be read reliably.
bool EndsReading(KernelFinding const& finding) {
  return finding.what.kind == LSCOREDB_FINDING_PAGES ||
         finding.what.kind == LSCOREDB_FINDING_DEFINITION;
}

// Maps what the kernel knows to the tables of the catalogue.
class Names {
 public:
  explicit Names(Transaction& transaction)
      : transaction_(transaction), tables_(transaction.Tables(true)) {}

  Finding Translate(KernelFinding const& finding) const {
    Finding reported{RuleOf(finding.what.kind), {}, finding.what.object, finding.text};
    for (TablePtr const& table : tables_) {
      for (Index const& index : table->indexes) {
        if (finding.what.index == 0 || index.handle != finding.what.index) continue;
        reported.table = ToUtf8(table->name);
        reported.what = "index " + ToUtf8(index.name) + ": " + finding.text;
      }
    }
    if (reported.table.empty()) reported.table = TableOf(finding);
    return reported;
  }

 private:
  std::string TableOf(KernelFinding const& finding) const {
    for (TablePtr const& table : tables_) {
      if (finding.what.layout != 0 && table->layout == finding.what.layout) {
        return ToUtf8(table->name);
      }
    }
    if (finding.what.object == 0) return {};
    try {
      auto const object = Object::Find(transaction_, ObjectId{finding.what.object});
      TablePtr const table = object ? transaction_.BySetspec(object->setspec()) : nullptr;
      return table == nullptr ? std::string() : ToUtf8(table->name);
    } catch (Error const&) {
      return {};  // it is damaged
    }
  }

  Transaction& transaction_;
  std::vector<TablePtr> tables_;
};

Finding Untranslated(KernelFinding const& finding) {
  return {RuleOf(finding.what.kind), {}, finding.what.object, finding.text};
}

void ReportAll(KernelFindings const& findings, FindingReport const& report) {
  for (KernelFinding const& finding : findings) report(Untranslated(finding));
}

void ReportByTable(Transaction& transaction, KernelFindings const& findings,
                   FindingReport const& report) {
  if (findings.empty()) return;
  std::optional<Names> names;
  try {
    names.emplace(transaction);
  } catch (Error const&) {
    return ReportAll(findings, report);  // the catalogue is what is damaged
  }
  for (KernelFinding const& finding : findings) report(names->Translate(finding));
}

void ReportError(Error const& error, FindingReport const& report) {
  report({"reading", {}, 0, checks::Say("{} (status {})", error.what(), error.status())});
}

void CheckAll(Transaction& transaction, CheckOptions const& options, FindingReport const& report,
              checks::Progress const& progress) {
  checks::WithOwnFailures(report, [&](FindingReport const& guarded) {
    try {
      checks::CheckTables(transaction, guarded);
      checks::CheckRows(transaction, guarded);
      checks::CheckAnnotations(transaction, guarded);
      checks::CheckObjects(transaction, options, guarded, progress);
    } catch (Error const& error) {
      ReportError(error, guarded);
    }
  });
}

// With the control among what the progress calls.
CheckOptions Controlled(CheckOptions options) {
  if (options.control == nullptr) return options;
  constexpr std::uint64_t kPauses = 100;
  options.progress = [heeded = jobs::Heeded(options.control), report = options.progress](
                         std::uint64_t done, std::uint64_t total) mutable {
    if (report) report(done, total);
    heeded.At(done, total / kPauses + 1);
  };
  return options;
}

}  // namespace

void CheckCatalogue(Transaction& transaction, CheckOptions const& options,
                    FindingReport const& report) {
  CheckOptions const controlled = Controlled(options);
  CheckAll(transaction, controlled, report, checks::Progress(controlled, 0));
}

void CheckDatabase(std::string const& directory, CheckOptions const& options,
                   FindingReport const& report) {
  detail::RequireDatabase(directory);  // the kernel would make one
  constexpr std::uint64_t kKernelQuarters = 3;
  CheckOptions const controlled = Controlled(options);
  checks::Progress progress(controlled, kKernelQuarters);
  KernelFindings const findings = Kernel(directory).Check(progress);
  for (KernelFinding const& finding : findings) {
    if (EndsReading(finding)) return ReportAll(findings, report);
  }
  std::optional<Database> database;
  try {
    database.emplace(Database::Open(directory, {.log = LSCOREDB_SAME_LOG}));
  } catch (Error const& error) {
    ReportAll(findings, report);
    return ReportError(error, report);
  }
  Context const context(*database);
  Transaction transaction(context, Access::kReadOnly);
  ReportByTable(transaction, findings, report);
  CheckAll(transaction, controlled, report, progress);
}

}  // namespace sagleme
