// Sentences about items, from what host and index say of them.
#include <gmock/gmock.h>

#include "index/explain.h"
#include "support.h"

namespace hoardex::test {
namespace {

using nlohmann::json;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string kMail = kRoot + "V:\\Tessary\\archive.db/AA/0001[[100]].zkm";
const std::string kFile = kRoot + "V:\\Tessary\\archive.db/AA/0001.zkm/00BB/plan.pdf";

std::string Logged(const std::string& message) {
  return "[32][0][2024/05/03 08:20:00:000] HoardexFilter(76):" + message;
}

ItemFacts Mail() {
  ItemFacts facts;
  facts.url = kMail;
  facts.kind = ItemKind::kMessage;
  facts.container_asked = facts.index_there = true;
  facts.link = Link{kMail, kTime};
  facts.record = {{"url", kMail},
                  {"properties", {{"System.Subject", "Plan"}, {"System.Message.AttachmentNames", "plan.pdf"}}},
                  {"text",
                   "Gr\xc3\xbc\xc3\x9f"
                   "e"},
                  {"log", {Logged("CHoardexFilter::GetChunk() - PR_MESSAGE_CLASS = [IPM.Note]")}}};
  facts.status.emplace();
  facts.status->state = ItemState::kDone;
  facts.status->title = "Plan";
  facts.status->link_time = facts.status->done_time = kTime;
  return facts;
}

TEST(Explain, SaysWhatWasPromisedGivenAndIndexed) {
  const Explanation all = Explain(Mail());
  EXPECT_EQ(all.verdict, "The message can be found.");
  EXPECT_THAT(all.sentences, Contains(HasSubstr("its folder lists it, last modified " + kTime)));
  EXPECT_THAT(all.sentences, Contains(HasSubstr("2 values and a text of 5 characters")));
  EXPECT_THAT(all.sentences, Contains(HasSubstr("plan.pdf")));
  EXPECT_THAT(all.left_out, IsEmpty());
  ASSERT_EQ(all.log.size(), 1u);
  EXPECT_FALSE(all.log[0].failure);

  ItemFacts changed = Mail();
  changed.link->modified = kLater;
  EXPECT_THAT(Explain(changed).sentences, Contains(HasSubstr("it has changed since")));
  changed.undated = true;
  EXPECT_THAT(Explain(changed).sentences, Contains(HasSubstr("without a time of its own")));
  changed.status.reset();
  EXPECT_EQ(Explain(changed).verdict, "The message can be read, but is not in the index.");
}

TEST(Explain, NamesWhatIsLeftOutAndByWhat) {
  const std::pair<const char*, const char*> cases[] = {
      {"CHoardexFilter::GetChunk() -\tIFilter\tnot found for extension\t[pdf]", "of the type .pdf"},
      {"CHoardexFilter::GetChunk() - PROP_ATTACHMENT_NAMES - WDS Group policy is set to ignore all email attachments",
       "policy \"prevent indexing"},
      {"CHoardexFilter::GetChunk() - PROP_ATTACHMENT_NAMES - WDS Group policy is set to ignore specific attachment of "
       "type - .exe;",
       "excludes attachments of the type .exe:"},
      {"CHoardexFilter::GetChunk() - Attachment extension could not be extracted for\trow [0]", "embedded messages"},
      {"CUrlAccessor::Init() - GetProps for ref-attachment failed with [0x80040102]", "reference to a file elsewhere"},
      {"CHoardexFilter::GetText() - Stream Read failed with [0x80030002]", "what came before is indexed"},
  };
  for (const auto& [line, sentence] : cases) {
    ItemFacts facts = Mail();
    facts.record["log"].push_back(Logged(line));
    facts.record["log"].push_back(Logged(line));
    const Explanation all = Explain(facts);
    ASSERT_EQ(all.left_out.size(), 1u) << line << ": a sentence is said once";
    EXPECT_THAT(all.left_out[0], HasSubstr(sentence));
    EXPECT_EQ(all.verdict, "The message can be found, but not everything in it.");
  }
  ItemFacts facts = Mail();
  facts.record["policy"] = {{"prevented", true}, {"excluded", "exe;"}};
  EXPECT_THAT(Explain(facts).sentences, Contains(HasSubstr("exe;")));
}

TEST(Explain, MarksFailuresInTheLog) {
  const std::pair<const char*, bool> cases[] = {
      {"CMapiForWDS::AddService() - Unicode CreateMsgService returned with [0x00000000]", false},
      {"CUrlAccessor::Init() - OpenAttach failed with [0x8004010F]", true},
      {"CHoardexFilter::GetChunk() - Exception occurred", true},
      {"CUrlAccessor::GetLastModified() -  2024/05/03 08:20:00 hr=[0x00000000]", false},
      {"CHoardexFilter::GetChunk() - Row count for attachment table is zero", false},
  };
  for (const auto& [line, failure] : cases) {
    ItemFacts facts = Mail();
    facts.record["log"] = {Logged(line)};
    EXPECT_EQ(Explain(facts).log.at(0).failure, failure) << line;
  }
}

TEST(Explain, TellsFailuresApart) {
  ItemFacts lost = Mail();
  lost.record = {};
  lost.lost = "the protocol host gave no answer for 120 s";
  lost.status->state = ItemState::kLost;
  lost.status->error = "the protocol host ended with signal 11";
  const Explanation given_up = Explain(lost);
  EXPECT_EQ(given_up.verdict, "The message cannot be read.");
  EXPECT_THAT(given_up.left_out, Contains(HasSubstr("no answer for 120 s")));
  EXPECT_THAT(given_up.left_out, Contains(HasSubstr("--retry")));

  ItemFacts failed = Mail();
  failed.url = kFile;
  failed.kind = ItemKind::kAttachment;
  failed.link.reset();
  failed.record = {{"url", kFile},
                   {"error", {{"step", "CreateAccessor"}, {"code", "0x80004001"}, {"name", "E_NOTIMPL"}}}};
  const Explanation embedded = Explain(failed);
  EXPECT_THAT(embedded.sentences, Contains(HasSubstr("does not list it")));
  EXPECT_THAT(embedded.left_out, Contains(HasSubstr("a message of its own")));

  ItemFacts partly = Mail();
  partly.record["error"] = {{"step", "GetText"}, {"code", "0x80004005"}, {"name", "E_FAIL"}};
  EXPECT_THAT(Explain(partly).left_out, Contains(HasSubstr("what comes after is left out")));

  ItemFacts gone = Mail();
  gone.vault_trouble = "There is no vault.";
  EXPECT_EQ(Explain(gone).verdict, "The message can be found, but not read again.");
}

TEST(Explain, FindsTheContainerOfAnItem) {
  EXPECT_EQ(ContainerOf(kRoot), "");
  EXPECT_EQ(ContainerOf(kRoot + "V:\\Tessary\\archive.db/"), kRoot);
  EXPECT_EQ(ContainerOf(kRoot + "V:\\Tessary\\archive.db/AA/"), kRoot + "V:\\Tessary\\archive.db/");
  EXPECT_EQ(ContainerOf(kMail), kRoot + "V:\\Tessary\\archive.db/AA/");
  EXPECT_EQ(ContainerOf(kFile), kRoot + "V:\\Tessary\\archive.db/AA/0001.zkm");
  EXPECT_TRUE(IsSameItem(kMail, kRoot + "V:\\Tessary\\archive.db/AA/0001.zkm"));
  EXPECT_FALSE(IsSameItem(kMail, kRoot + "V:\\Tessary\\archive.db/AA/0002.zkm"));
  EXPECT_FALSE(IsSameItem(kFile, kFile + "x"));
}

}  // namespace
}  // namespace hoardex::test
