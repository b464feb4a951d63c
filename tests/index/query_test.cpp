#include "index/query.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "index/crawl.h"
#include "index/search.h"
#include "support.h"

namespace hoardex::test {
namespace {

using testing::HasSubstr;

class QueryTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    scratch_ = new Scratch;
    Corpus corpus(*scratch_);
    Sample sample(corpus);
    corpus.Save();
    store_ = new Store(scratch_->path() / "index.sqlite", Database::Mode::kCreate);
    Gatherer gatherer(corpus.Options());
    Crawl(gatherer, *store_, {});
  }
  static void TearDownTestSuite() {
    delete store_;
    delete scratch_;
  }

  // The titles of the hits, joined by commas.
  static std::string Find(const std::string& query, bool sorted = false) {
    std::vector<std::string> titles;
    for (const Hit& hit : Search(*store_, CompileQuery(query), 100, HitDetail::kBare).hits) titles.push_back(hit.title);
    if (sorted) std::sort(titles.begin(), titles.end());
    std::string out;
    for (const std::string& title : titles) out += (out.empty() ? "" : ",") + title;
    return out;
  }

  static Scratch* scratch_;
  static Store* store_;
};
Scratch* QueryTest::scratch_;
Store* QueryTest::store_;

TEST_F(QueryTest, EveryOperatorFindsWhatItShould) {
  const struct {
    const char *query, *titles;
  } kCases[] = {
      {"lanterns", "Party,report.pdf"},
      {"LANTERNS bring", "Party"},
      {"tent*", "Budget for the spring fair,Party,report.pdf"},
      {"tent", "Party"},
      {"\"annual report\"", "Planning,Re: Budget"},
      {"\"report annual\"", ""},
      {"\"annual pl\"*", "Re: Budget"},
      {"from:ann", "Budget for the spring fair,Café,report.pdf,東京の会議について"},
      {"from:budget", "Party"},
      {"from:\"bob baker\"", "Re: Budget"},
      {"to:bob@example.org", "Budget for the spring fair,report.pdf"},
      {"subject:budget", "Budget for the spring fair,Re: Budget"},
      {"subject:(party OR planning)", "Party,Planning"},
      {"name:report.pdf", "Budget for the spring fair,report.pdf"},
      {"kind:calendar", "Planning"},
      {"kind:appointment room", "Planning"},
      {"kind:attachment", "report.pdf"},
      {"kind:email budget", "Budget for the spring fair,Party,Re: Budget"},
      {"has:attachment", "Budget for the spring fair"},
      {"folder:zahlen", "Budget for the spring fair,report.pdf"},
      {"folder:\"sent items\"", "Re: Budget"},
      {"vault:second", "Re: Budget"},
      {"vault:SEC*", "Re: Budget"},
      {"before:2019", "Café"},
      {"after:2020", "Party"},
      {"after:2020-12-31 kind:email", "Party"},
      {"before:2020-12-31 lanterns", "report.pdf"},
      {"date:2018-06 OR date:2020-12-31", "Café,Party"},
      {"date:2018-06-14", ""},
      {"party OR planning", "Party,Planning"},
      {"annual NOT subject:budget", "Planning"},
      {"-from:ann -from:dora -kind:attachment", "Party,Re: Budget"},
      {"(party OR annual) -\"annual plan\"", "Party,Planning"},
      {"cafe", "Café"},
      {"CREME brulee", "Café"},
      {"会議", "東京の会議について"},
      {"東京本社", "東京の会議について"},
      {"本社東京", ""},
      {"subject:会議 お願い", "東京の会議について"},
      {"東*", "東京の会議について"},
      {"e-mail://nothing", ""},
      {"annual --- & report", "Planning,Re: Budget"},
      {"\"annual\" AND \"report\"", "Planning,Re: Budget"},
  };
  for (const auto& [query, titles] : kCases) EXPECT_EQ(Find(query, true), titles) << query;
}

TEST_F(QueryTest, SubjectCountsMoreThanSenderAndSenderMoreThanBody) {
  EXPECT_EQ(Find("budget"), "Re: Budget,Budget for the spring fair,Party");
}

TEST_F(QueryTest, SnippetsMarkTheWordsAndCarryNoControls) {
  const auto hit = Search(*store_, CompileQuery("31mred"), 1, HitDetail::kProperties).hits.at(0);
  EXPECT_THAT(hit.snippet, HasSubstr("[\x02"
                                     "31mred\x03[0m"));
  EXPECT_EQ(hit.snippet.find('\x1b'), std::string::npos);
  const auto tokyo = Search(*store_, CompileQuery("本社"), 1, HitDetail::kProperties).hits.at(0);
  EXPECT_THAT(tokyo.snippet, HasSubstr("東京\x02本社\x03"));
  EXPECT_THAT(tokyo.properties, HasSubstr("System.Subject"));
}

TEST_F(QueryTest, BadQueriesAreExplained) {
  const struct {
    const char *query, *sentence;
  } kCases[] = {
      {"", "nothing to search for"},
      {"*** &&", "nothing to search for"},
      {"\"open", "quotation mark"},
      {"(a", "\"(\" has no \")\""},
      {"a)", "\")\" without"},
      {"a OR", "OR needs"},
      {"OR a", "OR needs"},
      {"a AND", "AND needs"},
      {"NOT", "NOT needs"},
      {"()", "between the parentheses"},
      {"colour:red", "no field \"colour:\""},
      {"before:soon", "is no date"},
      {"after:2019-02-29", "is no date"},
      {"date:2019-3", "is no date"},
      {"kind:thing", "no kind \"thing\""},
      {"has:wings", "has:attachment"},
  };
  for (const auto& [query, sentence] : kCases) {
    try {
      CompileQuery(query);
      ADD_FAILURE() << query << " was accepted";
    } catch (const QueryError& error) {
      EXPECT_THAT(error.what(), HasSubstr(sentence)) << query;
    }
  }
  EXPECT_THROW(CompileQuery(std::string(1000, '(') + "a"), QueryError);
}

// Whatever is typed, it is a QueryError or a statement that SQLite accepts.
TEST_F(QueryTest, NoInputBreaksTheStatement) {
  const std::string alphabet = "a\"'*()-:^{}+;%_\\ OR NOT AND\xE6\x9D\xB1\xFF";
  unsigned seed = 7;
  for (int i = 0; i < 3000; ++i) {
    std::string query;
    for (int n = 0; n < 12; ++n) query += alphabet[(seed = seed * 1664525 + 1013904223) / 65536 % alphabet.size()];
    try {
      Search(*store_, CompileQuery(query), 5, HitDetail::kBare);
    } catch (const QueryError&) {
    } catch (const DatabaseError& error) {
      ADD_FAILURE() << query << ": " << error.what();
    }
  }
}

TEST(JoinQuery, WordsWithBlanksWereQuoted) {
  EXPECT_EQ(JoinQuery({"from:ann OR party"}), "from:ann OR party");
  EXPECT_EQ(JoinQuery({"from:ann", "annual plan"}), "from:ann \"annual plan\"");
  EXPECT_EQ(JoinQuery({"x", "-subject:annual plan"}), "x -subject:\"annual plan\"");
  EXPECT_EQ(JoinQuery({"x", "a OR b"}), "x (a OR b)");
}

}  // namespace
}  // namespace hoardex::test
