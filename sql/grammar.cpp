#include <tao/pegtl.hpp>
#include <tao/pegtl/contrib/unescape.hpp>

#include "definition.h"
#include "failure.h"

namespace sagleme::sql {
namespace {

namespace peg = tao::pegtl;

// ---- words

struct line_comment : peg::seq<peg::two<'-'>, peg::until<peg::eolf>> {};
struct block_comment : peg::if_must<TAO_PEGTL_STRING("/*"), peg::until<TAO_PEGTL_STRING("*/")>> {};
struct blank : peg::sor<peg::space, line_comment, block_comment> {};
struct gap : peg::star<blank> {};
struct letter : peg::sor<peg::alpha, peg::one<'_'>, peg::ranges<'\x80', '\xff'>> {};
struct letter_or_digit : peg::sor<letter, peg::digit, peg::one<'$'>> {};

template <typename Word>
struct keyword : peg::seq<Word, peg::not_at<letter_or_digit>, gap> {};
#define SAGLEME_KEYWORD(name, text) \
  struct name : keyword<TAO_PEGTL_ISTRING(text)> {}
SAGLEME_KEYWORD(kw_abstract, "abstract");
SAGLEME_KEYWORD(kw_action, "action");
SAGLEME_KEYWORD(kw_add, "add");
SAGLEME_KEYWORD(kw_alter, "alter");
SAGLEME_KEYWORD(kw_asc, "asc");
SAGLEME_KEYWORD(kw_cascade, "cascade");
SAGLEME_KEYWORD(kw_column, "column");
SAGLEME_KEYWORD(kw_comment, "comment");
SAGLEME_KEYWORD(kw_create, "create");
SAGLEME_KEYWORD(kw_data, "data");
SAGLEME_KEYWORD(kw_default, "default");
SAGLEME_KEYWORD(kw_delete, "delete");
SAGLEME_KEYWORD(kw_desc, "desc");
SAGLEME_KEYWORD(kw_drop, "drop");
SAGLEME_KEYWORD(kw_exists, "exists");
SAGLEME_KEYWORD(kw_explain, "explain");
SAGLEME_KEYWORD(kw_if, "if");
SAGLEME_KEYWORD(kw_index, "index");
SAGLEME_KEYWORD(kw_inherits, "inherits");
SAGLEME_KEYWORD(kw_is, "is");
SAGLEME_KEYWORD(kw_last, "last");
SAGLEME_KEYWORD(kw_no, "no");
SAGLEME_KEYWORD(kw_not, "not");
SAGLEME_KEYWORD(kw_null, "null");
SAGLEME_KEYWORD(kw_on, "on");
SAGLEME_KEYWORD(kw_parent, "parent");
SAGLEME_KEYWORD(kw_ref, "ref");
SAGLEME_KEYWORD(kw_rename, "rename");
SAGLEME_KEYWORD(kw_restrict, "restrict");
SAGLEME_KEYWORD(kw_set, "set");
SAGLEME_KEYWORD(kw_table, "table");
SAGLEME_KEYWORD(kw_to, "to");
SAGLEME_KEYWORD(kw_type, "type");
SAGLEME_KEYWORD(kw_under, "under");
SAGLEME_KEYWORD(kw_unique, "unique");
#undef SAGLEME_KEYWORD

template <char C>
struct mark : peg::seq<peg::one<C>, gap> {};
struct open_list : mark<'('> {};
struct close_list : mark<')'> {};
struct comma : mark<','> {};

struct plain_word : peg::seq<letter, peg::star<letter_or_digit>> {};
struct quoted_text : peg::plus<peg::sor<peg::two<'"'>, peg::not_one<'"', '\0'>>> {};
struct quoted_word : peg::if_must<peg::one<'"'>, quoted_text, peg::one<'"'>> {};
struct segment : peg::sor<plain_word, quoted_word> {};
struct dotted : peg::seq<peg::list_must<segment, peg::one<'.'>>, gap> {};

struct table_name : dotted {};
struct base_name : dotted {};
struct new_table_name : dotted {};
struct target_name : dotted {};
struct index_name : dotted {};
struct column_name : peg::seq<segment, gap> {};
struct new_column_name : peg::seq<segment, gap> {};

// ---- columns

struct type_word : plain_word {};
struct reference_type : peg::if_must<peg::seq<kw_ref, open_list>, target_name, close_list> {};
struct no_length : peg::not_at<peg::one<'('>> {};
struct plain_type : peg::seq<type_word, gap, peg::must<no_length>> {};
struct column_type : peg::sor<reference_type, plain_type> {};
struct not_null : peg::if_must<kw_not, kw_null> {};

struct text_literal
    : peg::seq<peg::one<'\''>, peg::star<peg::sor<peg::two<'\''>, peg::not_one<'\'', '\0'>>>,
               peg::one<'\''>> {};
struct bytes_literal : peg::seq<peg::one<'x', 'X'>, peg::one<'\''>,
                                peg::star<peg::seq<peg::xdigit, peg::xdigit>>, peg::one<'\''>> {};
struct exponent
    : peg::seq<peg::one<'e', 'E'>, peg::opt<peg::one<'+', '-'>>, peg::plus<peg::digit>> {};
struct number_literal
    : peg::seq<peg::opt<peg::one<'+', '-'>>, peg::plus<peg::digit>,
               peg::opt<peg::one<'.'>, peg::star<peg::digit>>, peg::opt<exponent>> {};
struct word_literal : peg::seq<peg::sor<TAO_PEGTL_ISTRING("true"), TAO_PEGTL_ISTRING("false"),
                                        TAO_PEGTL_ISTRING("null")>,
                               peg::not_at<letter_or_digit>> {};
struct default_literal : peg::sor<text_literal, bytes_literal, number_literal, word_literal> {};
struct literal_end : peg::not_at<peg::sor<letter_or_digit, peg::one<'.'>>> {};
struct default_clause : peg::if_must<kw_default, default_literal, literal_end, gap> {};

struct rule_refuse : kw_restrict {};
struct rule_cascade : kw_cascade {};
struct rule_last : kw_last {};
struct rule_set_null : peg::if_must<kw_set, kw_null> {};
struct rule_keep : peg::if_must<kw_no, kw_action> {};
struct delete_rule : peg::sor<rule_refuse, rule_cascade, rule_last, rule_set_null, rule_keep> {};
struct on_delete : peg::if_must<kw_on, kw_delete, delete_rule> {};

struct column_option : peg::sor<not_null, kw_null, default_clause, on_delete> {};
struct column : peg::seq<column_name, peg::must<column_type>, peg::star<column_option>> {};
struct column_end : peg::at<peg::one<',', ')'>> {};
struct listed_column : peg::seq<peg::must<column>, peg::must<column_end>> {};
struct column_list
    : peg::if_must<
          open_list,
          peg::sor<close_list, peg::seq<peg::list<listed_column, comma>, peg::must<close_list>>>> {
};

// ---- statements

struct said_if_not : peg::if_must<kw_if, kw_not, kw_exists> {};
struct said_if : peg::if_must<kw_if, kw_exists> {};
struct said_unique : kw_unique {};
struct said_cascade : kw_cascade {};
struct said_descending : kw_desc {};
struct said_explain : kw_explain {};

struct under : peg::if_must<kw_under, base_name> {};
struct inherits : peg::if_must<peg::seq<kw_inherits, open_list>, base_name, close_list> {};
struct bases : peg::opt<peg::sor<under, inherits>> {};
struct create_table
    : peg::if_must<kw_table, peg::opt<said_if_not>, table_name, bases, column_list, bases> {};

struct part : peg::seq<column_name, peg::opt<peg::sor<said_descending, kw_asc>>> {};
struct create_index : peg::if_must<kw_index, peg::opt<said_if_not>, index_name, kw_on, table_name,
                                   open_list, peg::list_must<part, comma>, close_list> {};
struct create_unique : peg::if_must<said_unique, create_index> {};
struct created : peg::sor<create_table, create_unique, create_index> {};

struct add_column : peg::if_must<kw_add, peg::opt<kw_column>, column> {};
struct drop_column : peg::if_must<kw_drop, peg::opt<kw_column>, column_name> {};
struct rename_table : peg::if_must<kw_to, new_table_name> {};
struct rename_column
    : peg::seq<peg::opt<kw_column>, column_name, peg::must<kw_to>, peg::must<new_column_name>> {};
struct renamed : peg::if_must<kw_rename, peg::sor<rename_table, rename_column>> {};
struct new_parent : peg::sor<kw_null, base_name> {};
struct set_parent : peg::if_must<kw_set, kw_parent, new_parent> {};
struct new_type : peg::if_must<kw_type, column_type> {};
struct takes_null : peg::if_must<kw_drop, kw_not, kw_null> {};
struct new_nullness_or_type : peg::sor<not_null, new_type, peg::if_must<kw_data, new_type>> {};
struct set_in_column : peg::if_must<kw_set, new_nullness_or_type> {};
struct set_default : peg::seq<kw_set, default_clause> {};
struct drop_default : peg::seq<kw_drop, kw_default> {};
struct set_rule : peg::seq<kw_set, on_delete> {};
struct column_alteration
    : peg::sor<new_type, set_default, drop_default, set_rule, set_in_column, takes_null> {};
struct alter_column : peg::if_must<kw_alter, peg::opt<kw_column>, column_name, column_alteration> {
};
struct said_not_abstract : kw_not {};
struct set_abstract : peg::seq<kw_set, peg::opt<said_not_abstract>, kw_abstract> {};
struct alteration
    : peg::sor<add_column, drop_column, renamed, set_abstract, set_parent, alter_column> {};
struct alter_table : peg::if_must<kw_alter, kw_table, table_name, alteration> {};

struct drop_table : peg::if_must<kw_table, peg::opt<said_if>, table_name, peg::opt<said_cascade>> {
};
struct drop_index : peg::if_must<kw_index, peg::opt<said_if>, index_name> {};
struct dropped : peg::sor<drop_table, drop_index> {};

struct commented_column : dotted {};
struct comment_on_table : peg::if_must<kw_table, table_name> {};
struct comment_on_column : peg::if_must<kw_column, commented_column> {};
struct comment_on_index : peg::if_must<kw_index, index_name> {};
struct commented : peg::sor<comment_on_table, comment_on_column, comment_on_index> {};
struct no_comment : kw_null {};
struct comment_text : text_literal {};
struct comment_or_null : peg::sor<no_comment, peg::seq<comment_text, gap>> {};
struct comment : peg::if_must<kw_comment, kw_on, commented, kw_is, comment_or_null> {};

struct create : peg::if_must<kw_create, created> {};
struct drop : peg::if_must<kw_drop, dropped> {};
struct statement_end : peg::sor<mark<';'>, peg::eof> {};
struct statement : peg::sor<create, alter_table, drop, comment> {};
struct definition : peg::must<gap, peg::opt<said_explain>, statement, statement_end> {};

// What the first words must be for the statement to be one of ours.
struct beginning
    : peg::seq<
          gap, peg::opt<kw_explain>,
          peg::sor<peg::seq<kw_create, peg::sor<kw_table, peg::seq<kw_unique, kw_index>, kw_index>>,
                   peg::seq<kw_alter, kw_table>, peg::seq<kw_comment, kw_on>,
                   peg::seq<kw_drop, peg::sor<kw_table, kw_index>>>> {};

// ---- what is said where something else is found

template <typename Rule>
inline constexpr char const* expected = nullptr;
#define SAGLEME_EXPECTED(rule, text) \
  template <>                        \
  inline constexpr char const* expected<rule> = text
SAGLEME_EXPECTED(statement,
                 "CREATE TABLE, CREATE INDEX, ALTER TABLE, DROP TABLE, DROP INDEX or COMMENT ON");
SAGLEME_EXPECTED(default_literal, "a number, a text in single quotes, TRUE, FALSE, NULL or X'...'");
SAGLEME_EXPECTED(literal_end, "the end of the default");
SAGLEME_EXPECTED(delete_rule, "RESTRICT, SET NULL, CASCADE, LAST or NO ACTION");
SAGLEME_EXPECTED(kw_delete, "DELETE");
SAGLEME_EXPECTED(kw_action, "ACTION");
SAGLEME_EXPECTED(kw_is, "IS");
SAGLEME_EXPECTED(commented, "TABLE, COLUMN or INDEX");
SAGLEME_EXPECTED(commented_column, "the name of a table, a dot and the name of a column");
SAGLEME_EXPECTED(comment_or_null, "a comment in single quotes, or NULL");
SAGLEME_EXPECTED(created, "TABLE, INDEX or UNIQUE INDEX");
SAGLEME_EXPECTED(create_index, "INDEX");
SAGLEME_EXPECTED(dropped, "TABLE or INDEX");
SAGLEME_EXPECTED(alteration, "ADD, DROP, RENAME, SET ABSTRACT, SET PARENT or ALTER COLUMN");
SAGLEME_EXPECTED(column_alteration, "TYPE, SET or DROP NOT NULL");
SAGLEME_EXPECTED(new_nullness_or_type, "NOT NULL, DATA TYPE, TYPE, DEFAULT or ON DELETE");
SAGLEME_EXPECTED(new_type, "TYPE");
SAGLEME_EXPECTED(statement_end, "the end of the statement");
SAGLEME_EXPECTED(column_list, "( and the columns");
SAGLEME_EXPECTED(column_end, "NOT NULL, DEFAULT, ON DELETE, a comma or )");
SAGLEME_EXPECTED(column, "a column");
SAGLEME_EXPECTED(column_type, "a type, or REF(table)");
SAGLEME_EXPECTED(no_length, "no length or precision, which columns do not have");
SAGLEME_EXPECTED(column_name, "the name of a column");
SAGLEME_EXPECTED(new_column_name, "the new name of the column");
SAGLEME_EXPECTED(table_name, "the name of a table");
SAGLEME_EXPECTED(new_table_name, "the new name of the table");
SAGLEME_EXPECTED(base_name, "the name of the base");
SAGLEME_EXPECTED(target_name, "the name of the table referred to");
SAGLEME_EXPECTED(index_name, "the name of an index");
SAGLEME_EXPECTED(new_parent, "the name of the base, or NULL");
SAGLEME_EXPECTED(segment, "a name after the dot");
SAGLEME_EXPECTED(quoted_text, "a name between the quotes");
SAGLEME_EXPECTED(part, "the name of a column");
SAGLEME_EXPECTED(open_list, "(");
SAGLEME_EXPECTED(close_list, ")");
SAGLEME_EXPECTED(kw_exists, "EXISTS");
SAGLEME_EXPECTED(kw_not, "NOT");
SAGLEME_EXPECTED(kw_null, "NULL");
SAGLEME_EXPECTED(kw_on, "ON");
SAGLEME_EXPECTED(kw_parent, "PARENT");
SAGLEME_EXPECTED(kw_table, "TABLE");
SAGLEME_EXPECTED(kw_to, "TO");
SAGLEME_EXPECTED(kw_type, "TYPE");
#undef SAGLEME_EXPECTED
using renaming = peg::sor<rename_table, rename_column>;
template <>
inline constexpr char const* expected<renaming> = "TO or the name of a column";
template <>
inline constexpr char const* expected<peg::one<'"'>> = "\" at the end of the name";
template <>
inline constexpr char const* expected<peg::until<TAO_PEGTL_STRING("*/")>> = "*/";
using columns_inside =
    peg::sor<close_list, peg::seq<peg::list<listed_column, comma>, peg::must<close_list>>>;
template <>
inline constexpr char const* expected<columns_inside> = "a column or )";

std::string Found(char const* at, char const* end) {
  if (at == end) return "the end";
  char const* last = at;
  while (last != end && last - at < 24 &&
         (std::isalnum(static_cast<unsigned char>(*last)) != 0 || *last == '_')) {
    ++last;
  }
  return last == at ? std::string(1, *at) : std::string(at, last);
}

[[noreturn]] void Refuse(std::size_t line, std::size_t column, std::string const& what) {
  throw Failure(SQLITE_ERROR, "line " + std::to_string(line) + ", column " +
                                  std::to_string(column) + ": " + what);
}

template <typename Rule>
struct Control : peg::normal<Rule> {
  template <typename Input, typename... States>
  [[noreturn]] static void raise(Input const& in, States&&...) {
    auto const at = in.position();
    char const* const text = expected<Rule> == nullptr ? "something else" : expected<Rule>;
    Refuse(at.line, at.column,
           "expected " + std::string(text) + ", found " + Found(in.current(), in.end()));
  }
};

// ---- building

struct Builder {
  std::vector<std::string> segments;
  std::string table;
  std::string base;
  std::string index;
  std::string new_table;
  std::string new_column;
  std::vector<ColumnDefinition> columns;
  std::vector<bool> descending;
  bool conditional = false;
  bool unique = false;
  bool cascade = false;
  bool retypes = false;
  bool concrete = false;
  AnnotateStatement annotation;
  bool annotates = false;
  Definition made;

  void Annotate(Annotation::Kind kind, std::string text) {
    annotation.kind = kind;
    annotation.text = std::move(text);
    annotates = true;
  }
  void FinishAnnotation() {
    annotation.table = table;
    made.statement = annotation;
  }
  std::string TakeName() {
    std::string name;
    for (std::string const& each : segments) name += (name.empty() ? "" : ".") + each;
    segments.clear();
    return name;
  }
};

template <typename Rule>
struct Action : peg::nothing<Rule> {};

template <>
struct Action<plain_word> {
  template <typename Input>
  static void apply(Input const& in, Builder& to) {
    to.segments.push_back(in.string());
  }
};
template <>
struct Action<quoted_text> {
  template <typename Input>
  static void apply(Input const& in, Builder& to) {
    std::string text = in.string();
    for (auto at = text.find("\"\""); at != std::string::npos; at = text.find("\"\"", at + 1)) {
      text.erase(at, 1);
    }
    to.segments.push_back(std::move(text));
  }
};

#define SAGLEME_ACTION(rule, ...)                                                       \
  template <>                                                                           \
  struct Action<rule> {                                                                 \
    template <typename Input>                                                           \
    static void apply([[maybe_unused]] Input const& in, [[maybe_unused]] Builder& to) { \
      __VA_ARGS__;                                                                      \
    }                                                                                   \
  }
SAGLEME_ACTION(table_name, to.table = to.TakeName());
SAGLEME_ACTION(base_name, to.base = to.TakeName());
SAGLEME_ACTION(new_table_name, to.new_table = to.TakeName());
SAGLEME_ACTION(index_name, to.index = to.TakeName());
SAGLEME_ACTION(new_column_name, to.new_column = to.TakeName());
SAGLEME_ACTION(column_name, to.columns.push_back({to.TakeName(), Type::kString, true});
               to.descending.push_back(false));
SAGLEME_ACTION(target_name, to.columns.back().type = Type::kReference;
               to.columns.back().target = to.TakeName());
SAGLEME_ACTION(not_null, to.columns.back().nullable = false);
SAGLEME_ACTION(said_descending, to.descending.back() = true);
SAGLEME_ACTION(said_if_not, to.conditional = true);
SAGLEME_ACTION(said_if, to.conditional = true);
SAGLEME_ACTION(said_unique, to.unique = true);
SAGLEME_ACTION(said_cascade, to.cascade = true);
SAGLEME_ACTION(said_explain, to.made.explain = true);
SAGLEME_ACTION(type_word, {
  std::u16string const name = ToUtf16(in.string());
  unsigned char code = 0;
  auto const at = in.position();
  if (!metalayer::MapSqlToDbType(name.c_str(), code)) {
    bool const known = metalayer::CheckUnsopportedSqlType(name.c_str());
    Refuse(at.line, at.column,
           known ? "type " + in.string() + " is not supported"
                 : "expected a type, or REF(table), found " + in.string());
  }
  to.columns.back().type = static_cast<Type>(code);
});
SAGLEME_ACTION(create_table, (to.made.statement = CreateTableStatement{
                                  to.table, to.base, to.columns, to.conditional}));
SAGLEME_ACTION(add_column, (to.made.statement = AddColumnStatement{to.table, to.columns.back()}));
SAGLEME_ACTION(drop_column,
               (to.made.statement = DropColumnStatement{to.table, to.columns.back().name}));
SAGLEME_ACTION(rename_table, (to.made.statement = RenameTableStatement{to.table, to.new_table}));
SAGLEME_ACTION(rename_column, (to.made.statement = RenameColumnStatement{
                                   to.table, to.columns.back().name, to.new_column}));
SAGLEME_ACTION(drop_table,
               (to.made.statement = DropTableStatement{to.table, to.cascade, to.conditional}));
SAGLEME_ACTION(drop_index, (to.made.statement = DropIndexStatement{to.index, to.conditional}));
SAGLEME_ACTION(set_parent, (to.made.statement = SetParentStatement{to.table, to.base}));
SAGLEME_ACTION(new_type, to.retypes = true);
SAGLEME_ACTION(default_literal, to.columns.back().fallback = in.string());
SAGLEME_ACTION(rule_refuse, to.columns.back().on_delete = OnDelete::kRefuse);
SAGLEME_ACTION(rule_cascade, to.columns.back().on_delete = OnDelete::kCascade);
SAGLEME_ACTION(rule_last, to.columns.back().on_delete = OnDelete::kLast);
SAGLEME_ACTION(rule_set_null, to.columns.back().on_delete = OnDelete::kSetNull);
SAGLEME_ACTION(rule_keep, to.columns.back().on_delete = OnDelete::kKeep);
SAGLEME_ACTION(set_default, to.Annotate(Annotation::Kind::kDefault, to.columns.back().fallback));
SAGLEME_ACTION(drop_default, to.Annotate(Annotation::Kind::kDefault, "NULL"));
SAGLEME_ACTION(set_rule, to.Annotate(Annotation::Kind::kOnDelete,
                                     std::string(OnDeleteName(to.columns.back().on_delete))));
SAGLEME_ACTION(alter_column, {
  if (to.annotates) {
    to.annotation.column = to.columns.back().name;
    to.FinishAnnotation();
  } else {
    to.made.statement = AlterColumnStatement{to.table, to.columns.back(), to.retypes};
  }
});
SAGLEME_ACTION(said_not_abstract, to.concrete = true);
SAGLEME_ACTION(set_abstract, {
  to.Annotate(Annotation::Kind::kAbstract, "");
  to.annotation.removes = to.concrete;
  to.FinishAnnotation();
});
SAGLEME_ACTION(commented_column, {
  auto const at = in.position();
  if (to.segments.size() < 2) Refuse(at.line, at.column, "expected TABLE.COLUMN, found a name");
  to.annotation.column = to.segments.back();
  to.segments.pop_back();
  to.table = to.TakeName();
});
SAGLEME_ACTION(no_comment, to.annotation.removes = true);
SAGLEME_ACTION(comment_text, to.annotation.text = in.string());
SAGLEME_ACTION(comment, {
  to.annotation.index = to.index;
  to.FinishAnnotation();
});
SAGLEME_ACTION(create_index, {
  CreateIndexStatement made{to.index, to.table, {}, to.unique, to.conditional};
  for (std::size_t i = 0; i < to.columns.size(); ++i) {
    made.parts.push_back({to.columns[i].name, to.descending[i]});
  }
  to.made.statement = std::move(made);
});
#undef SAGLEME_ACTION

}  // namespace

bool BeginsDefinition(std::string_view text) {
  peg::memory_input<> in(text.data(), text.size(), "");
  try {
    return peg::parse<beginning>(in);
  } catch (peg::parse_error const&) {
    return false;  // a comment without an end
  }
}

Definition ParseDefinition(std::string_view text, std::string_view* rest) {
  peg::memory_input<> in(text.data(), text.size(), "");
  Builder builder;
  peg::parse<definition, Action, Control>(in, builder);
  if (rest != nullptr) *rest = text.substr(static_cast<std::size_t>(in.current() - text.data()));
  return builder.made;
}

}  // namespace sagleme::sql
