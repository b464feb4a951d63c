#include "index/search.h"

#include <memory>

#include "index/text.h"

namespace hoardex {
namespace {

// In the order of the columns of `documents`: title, sender, recipients, path, attachments, body, details.
constexpr const char* kRank = "bm25(documents, 12.0, 4.0, 2.0, 1.5, 3.0, 1.0, 1.5)";

// Control characters of the text must not be taken for marks, and not reach a terminal.
std::string CleanSnippet(std::string_view raw) {
  std::string out;
  for (size_t at = 0; at < raw.size();) {
    const size_t end = std::min(raw.find_first_of("\x02\x03", at), raw.size());
    const std::string_view part = raw.substr(at, end - at);
    const std::string clean = OneLine(part);
    const auto blank_at = [&](char c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r'; };
    if (!part.empty() && blank_at(part.front()) && !out.empty()) out += ' ';
    out += clean;
    if (!part.empty() && blank_at(part.back()) && !clean.empty()) out += ' ';
    if (end < raw.size()) out += raw[end];
    at = end + 1;
  }
  return out;
}

std::string Snippet(Store& store, const std::string& match, int64_t id) {
  const bool ranked = !match.empty();
  // -1 lets FTS5 choose the column with the best match; without words the beginning of the body has to do.
  Statement query(store.database().handle(),
                  ranked ? "SELECT snippet(documents, -1, char(2), char(3), '…', 24), title FROM documents WHERE "
                           "documents MATCH ?1 AND rowid = ?2"
                         : "SELECT substr(body, 1, 300), title FROM documents WHERE rowid = ?2");
  if (ranked) query.BindOne(1, match);
  query.BindOne(2, id);
  if (!query.Step()) return {};
  std::string snippet = CleanSnippet(query.Text(0));
  return ranked ? snippet : Shorten(snippet, 160);
}

}  // namespace

SearchResult Search(Store& store, const QueryPlan& plan, int64_t limit, HitDetail detail) {
  sqlite3* db = store.database().handle();
  const std::string from =
      plan.match.empty() ? std::string(" FROM items i") : " FROM documents JOIN items i ON i.id = documents.rowid";
  std::string where = " WHERE i.kinds <> '' AND i.kind >= 4";
  if (!plan.match.empty()) where += " AND documents MATCH ?";
  if (!plan.condition.empty()) where += " AND " + plan.condition;
  const auto bind = [&](Statement& statement) {
    int index = 0;
    if (!plan.match.empty()) statement.BindOne(++index, plan.match);
    for (const std::string& parameter : plan.parameters) statement.BindOne(++index, parameter);
    return index;
  };

  SearchResult result;
  Statement count(db, "SELECT count(*)" + from + where);
  bind(count);
  if (count.Step()) result.total = count.Integer(0);

  const std::string rank = plan.match.empty() ? "0.0" : kRank;
  Statement rows(db, "SELECT i.id, i.url, i.vault, i.title, i.sender, i.path, i.kinds, i.date, i.error, i.kind, " +
                         rank + " AS score, (SELECT p.title FROM items p WHERE p.id = i.parent)" + from + where +
                         " ORDER BY score, i.date DESC, i.id LIMIT ?");
  rows.BindOne(bind(rows) + 1, limit);
  while (rows.Step()) {
    Hit hit;
    hit.id = rows.Integer(0);
    hit.url = rows.String(1);
    hit.vault = rows.String(2);
    hit.title = rows.String(3);
    hit.sender = rows.String(4);
    hit.path = rows.String(5);
    hit.kinds = rows.String(6);
    hit.date = rows.String(7);
    hit.error = rows.String(8);
    hit.kind = static_cast<ItemKind>(rows.Integer(9));
    hit.score = rows.Real(10);
    if (hit.kind == ItemKind::kAttachment) hit.parent_title = rows.String(11);
    result.hits.push_back(std::move(hit));
  }
  if (detail == HitDetail::kBare) return result;
  for (Hit& hit : result.hits) {
    hit.snippet = Snippet(store, plan.match, hit.id);
    if (detail != HitDetail::kProperties) continue;
    Statement query(db, "SELECT json FROM properties WHERE item = ?1");
    query.BindOne(1, hit.id);
    if (query.Step()) hit.properties = query.String(0);
  }
  return result;
}

}  // namespace hoardex
