#include "index/query.h"

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <optional>

#include "index/text.h"

namespace hoardex {
namespace {

struct Node {
  enum class Type { kText, kCondition, kAnd, kOr, kNot };
  Type type = Type::kText;
  std::string text;  // the full-text expression, or the SQL condition
  std::vector<std::string> parameters;
  std::vector<Node> children;
};

struct Day {
  std::string first, next;  // the first instant of the period and of the one after it, as "YYYY-MM-DD"
};

std::string Date(int year, int month, int day) {
  char out[32];
  std::snprintf(out, sizeof out, "%04d-%02d-%02d", year, month, day);
  return out;
}

int DaysIn(int year, int month) {
  constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
  return kDays[month - 1] + (month == 2 && leap ? 1 : 0);
}

// YYYY, YYYY-MM or YYYY-MM-DD.
Day ParseDay(const std::string& field, const std::string& value) {
  const QueryError error("\"" + field + ":" + value +
                         "\" is no date; write a year, a month or a day like 2019, 2019-03 or 2019-03-02.");
  int parts[3] = {0, 1, 1};
  size_t count = 0, at = 0;
  for (; count < 3; ++count) {
    const size_t digits = count == 0 ? 4 : 2;
    if (value.size() < at + digits) throw error;
    parts[count] = 0;
    for (size_t i = 0; i < digits; ++i) {
      const char c = value[at + i];
      if (c < '0' || c > '9') throw error;
      parts[count] = parts[count] * 10 + (c - '0');
    }
    at += digits;
    if (at == value.size()) break;
    if (value[at++] != '-' || count == 2) throw error;
  }
  auto [year, month, day] = parts;
  if (year < 1 || month < 1 || month > 12 || day < 1 || day > DaysIn(year, month)) throw error;
  Day period{Date(year, month, day), {}};
  if (count == 2 && ++day > DaysIn(year, month)) day = 1, ++month;
  if (count == 1) ++month;
  if (month > 12) month = 1, ++year;
  if (count == 0) ++year;
  period.next = Date(year, month, day);
  return period;
}

Node Condition(std::string sql, std::vector<std::string> parameters) {
  return {Node::Type::kCondition, std::move(sql), std::move(parameters), {}};
}

// LIKE pattern with "*" as the only wildcard.
std::string LikePattern(std::string_view value) {
  std::string out;
  for (char c : value) {
    if (c == '%' || c == '_' || c == '\\') out.push_back('\\');
    out.push_back(c == '*' ? '%' : c);
  }
  return out;
}

Node KindCondition(const std::string& value) {
  struct Alias {
    std::string_view said, meant;
  };
  constexpr std::array<Alias, 9> kAliases{{{"mail", "email"},
                                           {"message", "email"},
                                           {"appointment", "calendar"},
                                           {"meeting", "calendar"},
                                           {"event", "calendar"},
                                           {"person", "contact"},
                                           {"contacts", "contact"},
                                           {"sticky", "note"},
                                           {"file", "attachment"}}};
  constexpr std::array<std::string_view, 22> kKinds{
      "attachment", "calendar",       "communication", "contact",    "document", "email", "feed", "folder",
      "game",       "instantmessage", "journal",       "link",       "movie",    "music", "note", "picture",
      "playlist",   "program",        "recordedtv",    "stickynote", "task",     "video"};
  std::string kind = AsciiLower(value);
  for (const Alias& alias : kAliases) {
    if (kind == alias.said) kind = alias.meant;
  }
  if (kind != "taskrequest" && kind != "searchfolder" &&
      std::find(kKinds.begin(), kKinds.end(), kind) == kKinds.end()) {
    throw QueryError(
        "There is no kind \"" + OneLine(value) +
        "\"; kinds are email, calendar, task, contact, note, attachment, document, picture, music, video …");
  }
  return Condition("i.kinds LIKE ?", {"%;" + kind + ";%"});
}

Node HasCondition(const std::string& value) {
  const std::string what = AsciiLower(value);
  if (what == "attachment" || what == "attachments") return Condition("i.has_attachments", {});
  throw QueryError("\"has:" + OneLine(value) + "\" is not known; the one that is: has:attachment.");
}

Node BeforeCondition(const std::string& value) {
  return Condition("(i.date <> '' AND i.date < ?)", {ParseDay("before", value).first});
}
Node AfterCondition(const std::string& value) {
  return Condition("i.date >= ?", {ParseDay("after", value).first});
}
Node DateCondition(const std::string& value) {
  const Day period = ParseDay("date", value);
  return Condition("(i.date >= ? AND i.date < ?)", {period.first, period.next});
}
Node VaultCondition(const std::string& value) {
  return Condition("i.vault LIKE ? ESCAPE '\\'", {LikePattern(value)});
}

struct Field {
  std::string_view name;
  std::string_view columns;               // of the full-text table
  Node (*condition)(const std::string&);  // or what the value means
};

constexpr std::array<Field, 13> kFields{{{"from", "sender", nullptr},
                                         {"to", "recipients", nullptr},
                                         {"cc", "recipients", nullptr},
                                         {"subject", "title", nullptr},
                                         {"folder", "path", nullptr},
                                         {"body", "body", nullptr},
                                         {"name", "title attachments", nullptr},
                                         {"kind", "", KindCondition},
                                         {"has", "", HasCondition},
                                         {"before", "", BeforeCondition},
                                         {"after", "", AfterCondition},
                                         {"date", "", DateCondition},
                                         {"vault", "", VaultCondition}}};

// The index holds no punctuation: a term without a letter or digit would match nothing or everything.
bool HasWord(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const char32_t c = DecodeUtf8(text, &i);
    if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) return true;
    const bool punctuation = c < 0xAA || (c >= 0x2000 && c <= 0x206F) || (c >= 0x2190 && c <= 0x2BFF) ||
                             (c >= 0x3000 && c <= 0x3004) || (c >= 0x3008 && c <= 0x3020) ||
                             (c >= 0xFF01 && c <= 0xFF0F) || c == 0xFFFD || c == 0xD7 || c == 0xF7 ||
                             (c >= 0xAB && c <= 0xBF && c != 0xB5 && c != 0xBA) || (c >= 0x1F000 && c <= 0x1FAFF);
    if (!punctuation) return true;
  }
  return false;
}

std::string FtsTerm(std::string_view text, std::string_view columns, bool prefix) {
  std::string out;
  if (!columns.empty()) out += "{" + std::string(columns) + "} : ";
  out += '"';
  for (char c : text) {
    // The statement ends at a NUL.
    if (c == '\0') continue;
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
  if (prefix) out += " *";
  return out;
}

class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  Node Parse() {
    Node node = Or({});
    if (!AtEnd()) throw QueryError("There is a \")\" without a \"(\" before it.");
    return node;
  }

 private:
  static constexpr int kDeepest = 64;

  void SkipBlanks() {
    while (at_ < text_.size() && IsBlank(text_[at_])) ++at_;
  }
  static bool IsBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
  bool AtEnd() {
    SkipBlanks();
    return at_ == text_.size();
  }
  bool Peek(char c) {
    SkipBlanks();
    return at_ < text_.size() && text_[at_] == c;
  }
  // An operator is a whole word in capitals.
  bool TakeWord(std::string_view word) {
    SkipBlanks();
    if (text_.substr(at_, word.size()) != word) return false;
    const size_t end = at_ + word.size();
    if (end < text_.size() && !IsBlank(text_[end]) && text_[end] != '(' && text_[end] != ')' && text_[end] != '"')
      return false;
    at_ = end;
    return true;
  }
  bool AtOperator(std::string_view word) {
    const size_t before = at_;
    const bool is = TakeWord(word);
    at_ = before;
    return is;
  }

  Node Or(std::string_view columns) {
    std::vector<Node> parts;
    parts.push_back(And(columns));
    while (TakeWord("OR")) {
      if (AtEnd() || Peek(')')) throw MissingSide("OR");
      parts.push_back(And(columns));
    }
    return Group(Node::Type::kOr, std::move(parts));
  }

  Node And(std::string_view columns) {
    if (AtOperator("OR")) throw MissingSide("OR");
    std::vector<Node> parts;
    while (!AtEnd() && !Peek(')') && !AtOperator("OR")) {
      if (TakeWord("AND")) {
        if (parts.empty() || AtEnd() || Peek(')') || AtOperator("OR")) throw MissingSide("AND");
        continue;
      }
      if (std::optional<Node> node = Unary(columns)) parts.push_back(std::move(*node));
    }
    if (parts.empty()) {
      throw QueryError(depth_ > 0 ? "There is nothing between the parentheses."
                                  : "There is nothing to search for: write at least one word.");
    }
    return Group(Node::Type::kAnd, std::move(parts));
  }

  static QueryError MissingSide(const std::string& word) {
    return QueryError(word + " needs a word on both sides; to search for the word itself, write \"" + AsciiLower(word) +
                      "\".");
  }

  std::optional<Node> Unary(std::string_view columns) {
    bool negated = false;
    while (true) {
      if (TakeWord("NOT")) {
        if (AtEnd() || Peek(')')) throw QueryError("NOT needs a word after it.");
        negated = !negated;
      } else if (Peek('-') && at_ + 1 < text_.size() && !IsBlank(text_[at_ + 1]) && text_[at_ + 1] != '-') {
        ++at_;
        negated = !negated;
      } else {
        break;
      }
    }
    std::optional<Node> node = Primary(columns);
    if (!node || !negated) return node;
    Node inverse;
    inverse.type = Node::Type::kNot;
    inverse.children.push_back(std::move(*node));
    return inverse;
  }

  // Nothing for a term that has no letter or digit.
  std::optional<Node> Primary(std::string_view columns) {
    SkipBlanks();
    if (Peek('(')) return Parenthesised(columns);
    if (Peek('"')) return Text(Quoted(), columns, true);
    const size_t colon = FieldEnd();
    if (colon == std::string_view::npos) return Text(Word(), columns, false);
    const std::string name = AsciiLower(text_.substr(at_, colon - at_));
    const auto field = std::find_if(kFields.begin(), kFields.end(), [&](const Field& f) { return f.name == name; });
    if (field == kFields.end()) {
      std::string known;
      for (const Field& f : kFields) known += (known.empty() ? "" : ", ") + std::string(f.name) + ":";
      throw QueryError("There is no field \"" + name + ":\"; fields are " + known +
                       ". To search for the text as it stands, put it in quotation marks.");
    }
    at_ = colon + 1;
    if (field->condition) {
      const std::string value = Peek('"') ? Quoted() : Word();
      if (value.empty()) throw QueryError("\"" + name + ":\" needs a value right after it.");
      return field->condition(value);
    }
    if (text_[at_] == '(') return Parenthesised(field->columns);
    const bool quoted = text_[at_] == '"';
    return Text(quoted ? Quoted() : Word(), field->columns, quoted);
  }

  Node Parenthesised(std::string_view columns) {
    if (++depth_ > kDeepest) throw QueryError("The parentheses are nested too deeply.");
    ++at_;
    Node node = Or(columns);
    if (!Peek(')')) throw QueryError("A \"(\" has no \")\" after it.");
    ++at_;
    --depth_;
    return node;
  }

  // The colon of "letters:something" at the current place; "http://…" and "re: " are words.
  size_t FieldEnd() const {
    size_t i = at_;
    while (i < text_.size() && ((text_[i] >= 'a' && text_[i] <= 'z') || (text_[i] >= 'A' && text_[i] <= 'Z'))) ++i;
    if (i - at_ < 2 || i + 1 >= text_.size() || text_[i] != ':') return std::string_view::npos;
    const char next = text_[i + 1];
    return IsBlank(next) || next == '/' || next == '\\' || next == ')' || next == ':' ? std::string_view::npos : i;
  }

  std::string Quoted() {
    const size_t end = text_.find('"', at_ + 1);
    if (end == std::string_view::npos) throw QueryError("A quotation mark is not closed.");
    std::string out(text_.substr(at_ + 1, end - at_ - 1));
    at_ = end + 1;
    return out;
  }

  std::string Word() {
    const size_t start = at_;
    while (at_ < text_.size() && !IsBlank(text_[at_]) && text_[at_] != ')' && text_[at_] != '(' && text_[at_] != '"')
      ++at_;
    return std::string(text_.substr(start, at_ - start));
  }

  std::optional<Node> Text(std::string value, std::string_view columns, bool quoted) {
    bool prefix = false;
    if (quoted) {
      if (at_ < text_.size() && text_[at_] == '*') prefix = true, ++at_;
    } else {
      while (value.ends_with('*')) prefix = true, value.pop_back();
    }
    if (!HasWord(value)) return std::nullopt;
    return Node{Node::Type::kText, FtsTerm(value, columns, prefix), {}, {}};
  }

  static Node Group(Node::Type type, std::vector<Node> parts) {
    if (parts.size() == 1) return std::move(parts.front());
    Node node;
    node.type = type;
    node.children = std::move(parts);
    return node;
  }

  std::string_view text_;
  size_t at_ = 0;
  int depth_ = 0;
};

// The full-text form of a tree that consists of text alone, if FTS5 can say it: its NOT has two sides.
std::optional<std::string> FullText(const Node& node) {
  switch (node.type) {
    case Node::Type::kText:
      return node.text;
    case Node::Type::kCondition:
    case Node::Type::kNot:
      return std::nullopt;
    case Node::Type::kAnd:
    case Node::Type::kOr:
      break;
  }
  const bool is_and = node.type == Node::Type::kAnd;
  std::string wanted, unwanted;
  for (const Node& child : node.children) {
    const bool negated = is_and && child.type == Node::Type::kNot;
    const auto text = FullText(negated ? child.children.front() : child);
    if (!text) return std::nullopt;
    std::string& side = negated ? unwanted : wanted;
    side += (side.empty() ? "(" : negated || !is_and ? " OR (" : " AND (") + *text + ")";
  }
  if (wanted.empty()) return std::nullopt;
  return unwanted.empty() ? wanted : "(" + wanted + ") NOT (" + unwanted + ")";
}

std::string Sql(const Node& node, std::vector<std::string>* parameters) {
  if (const auto text = FullText(node)) {
    parameters->push_back(*text);
    return "i.id IN (SELECT rowid FROM documents WHERE documents MATCH ?)";
  }
  if (node.type == Node::Type::kCondition) {
    parameters->insert(parameters->end(), node.parameters.begin(), node.parameters.end());
    return node.text;
  }
  if (node.type == Node::Type::kNot) return "NOT coalesce(" + Sql(node.children.front(), parameters) + ", 0)";
  std::string out = "(";
  for (const Node& child : node.children) {
    if (out.size() > 1) out += node.type == Node::Type::kAnd ? " AND " : " OR ";
    out += Sql(child, parameters);
  }
  return out + ")";
}

}  // namespace

QueryPlan CompileQuery(std::string_view query) {
  Node root = Parser(query).Parse();
  if (root.type != Node::Type::kAnd) {
    Node single;
    single.type = Node::Type::kAnd;
    single.children.push_back(std::move(root));
    root = std::move(single);
  }
  // Text that every hit must contain is ranked; negated text joins it, the rest becomes the condition.
  Node text, rest;
  text.type = rest.type = Node::Type::kAnd;
  bool any_text = false;
  for (Node& child : root.children) {
    const bool plain = FullText(child).has_value();
    const bool negated = child.type == Node::Type::kNot && FullText(child.children.front()).has_value();
    any_text |= plain;
    (plain || negated ? text : rest).children.push_back(std::move(child));
  }
  QueryPlan plan;
  if (any_text) {
    plan.match = *FullText(text);
  } else {
    for (Node& child : text.children) rest.children.push_back(std::move(child));
  }
  if (!rest.children.empty()) plan.condition = Sql(rest, &plan.parameters);
  return plan;
}

std::string JoinQuery(const std::vector<std::string>& words) {
  if (words.size() == 1) return words.front();
  std::string query;
  for (const std::string& word : words) {
    if (!query.empty()) query += ' ';
    const bool plain = word.find_first_of(" \t") == std::string::npos ||
                       word.find_first_of("\"()") != std::string::npos || word.find(" OR ") != std::string::npos ||
                       word.find(" AND ") != std::string::npos || word.find("NOT ") != std::string::npos;
    if (plain) {
      // What was quoted together belongs together: OR must not reach beyond it.
      const bool group = word.find(" OR ") != std::string::npos && word.find_first_of("()") == std::string::npos;
      query += group ? "(" + word + ")" : word;
      continue;
    }
    // -subject:annual plan: the quotation marks that the shell took away stood after the colon.
    size_t start = word.front() == '-' ? 1 : 0;
    const size_t colon = word.find(':'), blank = word.find_first_of(" \t");
    if (colon != std::string::npos && colon < blank && colon + 1 < blank) start = colon + 1;
    query += word.substr(0, start) + '"' + word.substr(start) + '"';
  }
  return query;
}

std::string QueryTerm(std::string_view field, std::string_view value) {
  std::string out(field);
  out += ":\"";
  for (char c : value) {
    if (c != '"') out += c;
  }
  return out + '"';
}

}  // namespace hoardex
