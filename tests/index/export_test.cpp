// Files made of items: names that do everywhere, whole files only, one host after another.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>
#include <map>

#include "index/export_folder.h"
#include "index/file_names.h"
#include "index/shell_answer.h"
#include "support.h"

namespace hoardex::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using Files = std::map<std::string, std::string>;

TEST(FileNames, DoOnEverySystem) {
  const struct {
    const char *stem, *extension, *name;
  } kCases[] = {
      {"Invoice 17", ".eml", "Invoice 17.eml"},
      {"RE: a/b\\c <d> \"e\" | f? *", ".eml", "RE_ a_b_c _d_ _e_ _ f_ _.eml"},
      {"tab\tand\r\nline\x01\x7f", ".eml", "tab and line.eml"},
      {"photo\u202Egpj.exe", "", "photogpj.exe"},
      {"\u2066\u200Fhidden\uFEFF", ".eml", "hidden.eml"},
      {"bad \xff\xfe bytes", ".eml", "bad �� bytes.eml"},
      {"ends . . ", ".eml", "ends.eml"},
      {"..", ".eml", "_.eml"},
      {"", ".eml", "_.eml"},
      {"../../etc/passwd", "", "_.._.._etc_passwd"},
      {"-rf", ".eml", "_-rf.eml"},
      {".profile", "", "_.profile"},
      {"CON", ".eml", "_CON.eml"},
      {"aux.tar", ".gz", "_aux.tar.gz"},
      {"nul ", "", "_nul"},
      {"com1", ".txt", "_com1.txt"},
      {"LPT\u00B2", ".txt", "_LPT\u00B2.txt"},
      {"COMPANY", ".txt", "COMPANY.txt"},
      {"report", ".p/df", "report.p_df"},
      {"東京の会議", ".eml", "東京の会議.eml"},
  };
  for (const auto& [stem, extension, name] : kCases) EXPECT_EQ(SafeFileName(stem, extension), name) << stem;
  EXPECT_EQ(SafeFileName("report", ".pdf", 2), "report (2).pdf");
  for (const auto& [name, extension] : {std::pair("a.tar.gz", ".gz"), std::pair("none", ""), std::pair(".hidden", ""),
                                        std::pair("Mr. Smith wrote", ""), std::pair("end.", "")})
    EXPECT_EQ(std::string(name).substr(ExtensionOf(name)), extension);
}

TEST(FileNames, AreCutBetweenCharacters) {
  for (const std::string character : {"x", "é", "会", "\U0001F600", "e\u0301", "\U0001F44D\U0001F3FD", "e\u0301\u0302"})
    for (int number : {1, 2, 12345})
      for (size_t before = 0; before < 8; ++before) {
        std::string stem(before, 'a');
        while (stem.size() < 3 * kLongestFileName) stem += character;
        const std::string name = SafeFileName(stem, ".eml", number);
        ASSERT_LE(name.size(), kLongestFileName);
        EXPECT_GT(name.size(), kLongestFileName - character.size() - 1);
        const std::string end = number == 1 ? ".eml" : " (" + std::to_string(number) + ").eml";
        ASSERT_TRUE(name.ends_with(end)) << name;
        EXPECT_EQ((name.size() - end.size() - before) % character.size(), 0u) << name;
      }
}

TEST(Answers, AreExplained) {
  EXPECT_FALSE(ErrorOfAnswer({{"save", "u"}, {"result", "0x00000000"}}));
  EXPECT_FALSE(ErrorOfAnswer({{"save", "u"}, {"result", "0x00000001"}}));
  const auto explain = [](json answer, const char* verb) {
    return ExplainShellError(ErrorOfAnswer(answer).value_or(ItemError{}), verb);
  };
  EXPECT_THAT(explain({{"result", "0x80070483"}}, "print"), HasSubstr("No program is registered that prints"));
  EXPECT_THAT(explain({{"result", "0x80040154"}}, "save"), HasSubstr("MIME converter"));
  EXPECT_THAT(explain({{"error", {{"step", "CoCreateInstance"}, {"code", "0x80040154"}}}}, "open"),
              HasSubstr("The module is not registered"));
  EXPECT_THAT(explain({{"result", "0x80070005"}}, "open"), HasSubstr("could run as programs"));
  // Nothing is opened when an item is saved.
  EXPECT_THAT(explain({{"result", "0x80070005"}, {"name", "E_ACCESSDENIED"}}, "save"), HasSubstr("E_ACCESSDENIED"));
  EXPECT_THAT(explain({{"error", {{"step", "BindToObject"}, {"code", "0x8000FFFF"}}}}, "save"),
              HasSubstr("BindToObject: 0x8000FFFF"));
  EXPECT_TRUE(ErrorOfAnswer(json::object())) << "an answer that says nothing";
}

class Export : public IndexTest {
 protected:
  Export() {
    for (const std::string& url :
         {sample_.budget, sample_.party, sample_.japanese, sample_.cafe, sample_.meeting, sample_.other_mail})
      corpus_.script()["saves"][url] = "mail";
    corpus_.script()["saves"][sample_.report] = "pdf";
  }
  Finished Run(std::vector<std::string> words, const std::string& interrupt_at = {}) {
    words.insert(words.begin(), "export");
    words.insert(words.end(), {"--to", to_.string()});
    return Program(words, interrupt_at);
  }
  Files Exported() const {
    Files files;
    if (!fs::exists(to_)) return files;
    for (const auto& entry : fs::directory_iterator(to_)) {
      std::ifstream in(entry.path());
      files[entry.path().filename()] = {std::istreambuf_iterator<char>(in), {}};
    }
    return files;
  }

  const fs::path to_ = scratch_.path() / "to: a \\ folder";
};

TEST_F(Export, WritesWhatAQueryFinds) {
  IndexBoth();
  const Finished done = Run({"tent*"});
  EXPECT_EQ(done.code, 0) << done.err;
  EXPECT_THAT(done.out, HasSubstr("3 items exported"));
  const Files files = Exported();
  ASSERT_EQ(files.size(), 3u);
  EXPECT_EQ(files.at("2020-12-31 Party.eml"), "eml mail");
  EXPECT_EQ(files.at("report.pdf"), "content pdf");
  struct stat info {};
  ASSERT_EQ(stat((to_ / "2020-12-31 Party.eml").c_str(), &info), 0);
  EXPECT_EQ(info.st_mtime, 1609459199) << "the mail's date, in UTC";

  // Again: nothing is replaced. As .msg, and at most one.
  EXPECT_EQ(Run({"tent*"}).code, 0);
  EXPECT_EQ(Exported().size(), 6u);
  EXPECT_EQ(Exported().at("report (2).pdf"), "content pdf");
  const Finished one = Run({"--format", "msg", "-n", "1", "--json", "tent*", "-party"});
  EXPECT_EQ(json::parse(one.out)["exported"].size(), 1u);
  EXPECT_EQ(Exported().size(), 7u);
  EXPECT_EQ(Run({"nothinglikethis"}).code, 1);
  EXPECT_EQ(Run({"ZKOFFLINE3X://mistyped"}).code, 2) << "no query, though it would find nothing";
}

TEST_F(Export, WritesItemsByTheirUrlsWithoutAnIndex) {
  const Finished done = Run({sample_.japanese, sample_.report});
  EXPECT_EQ(done.code, 0) << done.err;
  const Files files = Exported();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_TRUE(files.contains("report.pdf"));
  EXPECT_THAT(files.begin()->first, HasSubstr("東京の会議について.eml"));
  EXPECT_FALSE(fs::exists(scratch_.path() / "home/index.sqlite"));

  for (const std::string& container : {sample_.inbox, sample_.vault, kRoot}) {
    const Finished refused = Run({sample_.cafe, container});
    EXPECT_EQ(refused.code, 2);
    EXPECT_THAT(refused.err, HasSubstr("only messages and attachments are exported"));
  }
  EXPECT_EQ(Run({sample_.cafe, "word"}).code, 2);
  const Finished query = Run({"word"});
  EXPECT_EQ(query.code, 1);
  EXPECT_THAT(query.err, HasSubstr("There is no index yet"));
  EXPECT_EQ(Exported().size(), 2u);
}

TEST_F(Export, NamesWhatFailsAndGoesOn) {
  IndexBoth();
  corpus_.script()["saves"].erase(sample_.cafe);
  corpus_.Fault(sample_.party, "die");
  const Finished some = Run({"--json", "vault:archive", "-kind:attachment"});
  EXPECT_EQ(some.code, 3) << some.err;
  const json told = json::parse(some.out);
  EXPECT_EQ(told["exported"].size(), 3u);
  ASSERT_EQ(told["failed"].size(), 2u);
  std::map<std::string, json> failed;
  for (const json& one : told["failed"]) failed[one["url"]] = one;
  EXPECT_EQ(failed[sample_.cafe]["code"], "0x8004010F");
  EXPECT_THAT(failed[sample_.party]["reason"].get<std::string>(), HasSubstr("signal 11"));
  EXPECT_EQ(Exported().size(), 3u) << "no part of a file";

  const Finished all = Run({sample_.cafe});
  EXPECT_EQ(all.code, 1);
  EXPECT_THAT(all.err, HasSubstr("MAPI_E_NOT_FOUND"));
  corpus_.Fault("start", "exit");
  const Finished none = Run({"vault:archive"});
  EXPECT_EQ(none.code, 1);
  EXPECT_THAT(none.err, HasSubstr("does not start"));
}

TEST_F(Export, LeavesWholeFilesWhenItIsStopped) {
  corpus_.Fault(sample_.cafe, "hang");
  const Finished stopped = Run({sample_.japanese, sample_.cafe, sample_.meeting}, sample_.cafe);
  EXPECT_EQ(stopped.code, 130);
  EXPECT_THAT(stopped.err, HasSubstr("Stopped."));
  ASSERT_EQ(Exported().size(), 1u);
  EXPECT_EQ(Exported().begin()->second, "eml mail");
  for (const auto& entry : fs::directory_iterator(scratch_.path() / "home"))
    EXPECT_FALSE(entry.path().filename().string().starts_with("export-"));

  // What a killed one has left goes with the next; files of others do not.
  std::filesystem::create_directory(to_ / ".hoardex-999999999.part");
  std::ofstream(to_ / ".hoardex-999999999.part/item") << "half a m";
  std::ofstream(to_ / ".hoardex-notes.part") << "somebody's";
  EXPECT_EQ(Run({sample_.japanese}).code, 0);
  const Files files = Exported();
  EXPECT_FALSE(files.contains(".hoardex-999999999.part"));
  EXPECT_TRUE(files.contains(".hoardex-notes.part"));
  EXPECT_EQ(files.size(), 3u);
}

TEST_F(Export, SaysWhyAFolderWillNotDo) {
  scratch_.Write("file", "");
  const Finished file = Program({"export", sample_.cafe, "--to", (scratch_.path() / "file").string()});
  EXPECT_EQ(file.code, 1);
  EXPECT_THAT(file.err, HasSubstr("no folder that can be made"));
  EXPECT_EQ(Program({"export", sample_.cafe}).code, 2);
  EXPECT_EQ(Program({"export", sample_.cafe, "--to", "x", "--format", "pdf"}).code, 2);
}

}  // namespace
}  // namespace hoardex::test
