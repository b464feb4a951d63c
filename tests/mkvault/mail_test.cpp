// Mail files as stores, read back.
#include "tools/mkvault/mail_import.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <functional>

#include "tests/support/store_walk.h"
#include "tools/mkvault/mailbox.h"
#include "tools/mkvault/supervised.h"
#include "vault/store.h"
#include "vault/writer.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using vault::Utf8FromUtf16;

class Mail : public testing::Test {
 protected:
  void SetUp() override { fs::create_directories(source_); }
  void TearDown() override { fs::remove_all(folder_); }

  fs::path Put(const std::string& name, const std::string& content) {
    const fs::path path = source_ / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  mkvault::MailImport Import(const fs::path& source) {
    const auto result =
        mkvault::ImportMail(mkvault::FindMail(source), file_, {"Mail", vault::MakeStoreUid("x"), {}}, options_);
    store_ = vault::Store::Open(file_);
    EXPECT_THAT(test::WalkStore(*store_).errors, IsEmpty());
    return result;
  }
  // "path/of/folder: subject" of every message.
  std::vector<std::string> Listing() {
    std::vector<std::string> lines;
    const std::function<void(vault::Nid, const std::string&)> walk = [&](vault::Nid nid, const std::string& path) {
      const vault::Folder folder = store_->OpenFolder(nid);
      const vault::Table contents = folder.Contents(), hierarchy = folder.Hierarchy();
      for (auto row = contents.Walk(); row.Next();)
        lines.push_back(path + ": " + Utf8FromUtf16(store_->OpenMessage(row.row().id()).subject()));
      for (auto row = hierarchy.Walk(); row.Next();) {
        const std::string name = Utf8FromUtf16(store_->OpenFolder(row.row().id()).name());
        walk(row.row().id(), path.empty() ? name : path + "/" + name);
      }
    };
    walk(store_->subtree(), "");
    return lines;
  }
  // The only message of the only folder.
  vault::Message Only() {
    const vault::Table folders = store_->OpenFolder(store_->subtree()).Hierarchy();
    for (auto folder = folders.Walk(); folder.Next();) {
      const vault::Table contents = store_->OpenFolder(folder.row().id()).Contents();
      for (auto row = contents.Walk(); row.Next();) return store_->OpenMessage(row.row().id());
    }
    throw std::runtime_error("no message");
  }
  static std::string Text(const vault::PropertySet& properties, std::uint16_t id) {
    const auto text = properties.Text(id);
    return text ? Utf8FromUtf16(*text) : "<none>";
  }
  std::vector<std::string> Recipients(const vault::Message& message) {
    std::vector<std::string> lines;
    const vault::Table table = message.Recipients();
    for (auto row = table.Walk(); row.Next();) {
      const auto text = [&](std::uint16_t id) {
        const auto value = row.row().Find(id);
        return value ? Utf8FromUtf16(value->AsText()) : std::string("<none>");
      };
      lines.push_back(std::to_string(row.row().Find(0x0C15)->AsInt32()) + " " + text(0x3001) + " " + text(0x39FE));
    }
    return lines;
  }
  static std::string DataOf(const vault::Attachment& attachment) {
    auto data = attachment.Data();
    if (!data) return "<none>";
    const auto bytes = data->ReadAll();
    return {bytes.begin(), bytes.end()};
  }

  const fs::path folder_ = fs::temp_directory_path() / ("mkvault-mail-" + std::to_string(::getpid()));
  const fs::path source_ = folder_ / "source", file_ = folder_ / "out.db";
  std::shared_ptr<const vault::Store> store_;
  mkvault::ImportOptions options_;
};

TEST_F(Mail, HeadersBecomeProperties) {
  Import(Put("a.eml",
             "Received: from a by b; Tue, 5 Mar 2019 09:00:05 +0100\r\n"
             "Received: from c by a; Tue, 5 Mar 2019 08:00:00 +0100\r\n"
             "From: =?utf-8?B?SsO8cmdlbiBNw7xsbGVy?= <j.mueller@example.com>\r\n"
             "Sender: \"The Office\" <office@example.com>\r\n"
             "To: \"Smith, Ann\" <ann@example.org>, team: bob@example.org, Carol <carol@example.org>;\r\n"
             "Cc: =?iso-8859-1?Q?Ren=E9?= <rene@example.fr>\r\n"
             "Subject: =?utf-8?Q?RE=3A_Gr=C3=BC=C3=9Fe?=\r\n =?utf-8?Q?_aus_K=C3=B6ln?=\r\n"
             "Date: Tue, 5 Mar 2019 08:30:00 +0100\r\n"
             "Message-ID: <one@example.com>\r\nIn-Reply-To: <zero@example.com>\r\n"
             "X-Priority: 1 (Highest)\r\nSensitivity: Private\r\n"
             "\r\nPlain\r\n"));
  const auto message = Only();
  const auto& p = message.properties();
  EXPECT_EQ(Utf8FromUtf16(message.subject()), "RE: Grüße aus Köln");
  EXPECT_EQ(Text(p, 0x0042), "Jürgen Müller");
  EXPECT_EQ(Text(p, 0x0065), "j.mueller@example.com");
  EXPECT_EQ(Text(p, 0x0C1A), "The Office");
  EXPECT_EQ(Text(p, 0x0C1F), "office@example.com");
  EXPECT_THAT(Recipients(message), ElementsAre("1 Smith, Ann ann@example.org", "1 bob@example.org bob@example.org",
                                               "1 Carol carol@example.org", "2 René rene@example.fr"));
  EXPECT_EQ(p.Int(0x0039), vault::FileTime(2019, 3, 5, 7, 30));
  EXPECT_EQ(p.Int(0x0E06), vault::FileTime(2019, 3, 5, 8, 0, 5));
  EXPECT_EQ(Text(p, 0x1035), "<one@example.com>");
  EXPECT_EQ(Text(p, 0x1042), "<zero@example.com>");
  EXPECT_EQ(p.Int(0x0017), 2);
  EXPECT_EQ(p.Int(0x0036), 2);
  EXPECT_EQ(Text(p, 0x1000), "Plain\r\n");
  EXPECT_THAT(Text(p, 0x007D), HasSubstr("Message-ID: <one@example.com>\r\n"));
}

TEST_F(Mail, PartsBecomeBodiesAndAttachments) {
  const std::string inner =
      "From: inner@example.com\nSubject: Inner\nContent-Type: multipart/mixed; boundary=i\n\n--i\n\nInner text\n--i\n"
      "Content-Type: application/pdf; name=\"in.pdf\"\nContent-Transfer-Encoding: base64\n\nSGVsbG8=\n--i--\n";
  Import(Put(
      "a.eml",
      "From: a@example.com\nSubject: Parts\nContent-Type: multipart/mixed; boundary=o\n\n"
      "--o\nContent-Type: multipart/related; boundary=r\n\n"
      "--r\nContent-Type: multipart/alternative; boundary=a\n\n"
      "--a\nContent-Type: text/plain; charset=koi8-r\nContent-Transfer-Encoding: 8bit\n\n\xF0\xD2\xC9\xD7\xC5\xD4\n"
      "--a\nContent-Type: text/html; charset=utf-8\nContent-Transfer-Encoding: quoted-printable\n\n<p>=D0=9F</p>\n"
      "--a--\n"
      "--r\nContent-Type: image/png\nContent-ID: <pic@x>\nContent-Transfer-Encoding: base64\n\niVBORw==\n--r--\n"
      "--o\nContent-Type: message/rfc822\n\n" +
          inner +
          "--o\nContent-Type: application/octet-stream\nContent-Disposition: attachment;\n"
          " filename*0*=utf-8''%E6%97%A5;\n filename*1*=%E6%9C%AC.bin\nContent-Transfer-Encoding: base64\n\nAAECAw==\n"
          "--o\nContent-Type: text/plain\nContent-Disposition: attachment; filename=\"../../notes.txt\"\n\nkept\n"
          "--o\nContent-Type: text/calendar\n\nBEGIN:VCALENDAR\n--o--\n"));
  const auto message = Only();
  EXPECT_THAT(Text(message.properties(), 0x1000), HasSubstr("Привет"));
  const auto html = message.properties().Binary(0x1013);
  ASSERT_TRUE(html);
  EXPECT_THAT(std::string(html->begin(), html->end()), HasSubstr("<p>П</p>"));
  std::vector<std::string> names, contents;
  for (const vault::Nid nid : message.AttachmentNids()) {
    const auto attachment = message.OpenAttachment(nid);
    if (attachment.method() == vault::AttachMethod::kEmbedded) {
      const auto embedded = attachment.OpenEmbedded();
      EXPECT_EQ(Utf8FromUtf16(embedded.subject()), "Inner");
      EXPECT_THAT(Text(embedded.properties(), 0x1000), HasSubstr("Inner text"));
      ASSERT_EQ(embedded.AttachmentNids().size(), 1u);
      EXPECT_EQ(DataOf(embedded.OpenAttachment(embedded.AttachmentNids()[0])), "Hello");
      continue;
    }
    names.push_back(attachment.file_name() ? Utf8FromUtf16(*attachment.file_name()) : "<none>");
    contents.push_back(DataOf(attachment));
  }
  EXPECT_THAT(names, ElementsAre("part1.png", "日本.bin", "notes.txt", "part2.ics"));
  ASSERT_EQ(contents.size(), 4u);
  EXPECT_EQ(contents[1], std::string("\0\1\2\3", 4));
  EXPECT_THAT(contents[2], HasSubstr("kept"));
}

TEST_F(Mail, DamagedMessagesAreTakenAsFarAsTheyGo) {
  Put("1.eml",
      "Subject: \xE4ra ohne Deklaration\nDate: never\nContent-Type: text/plain; charset=no-such-set\n\nK\xF6ln\n");
  Put("2.eml", "Subject: cut\nContent-Type: multipart/mixed; boundary=x\n\n--x\nContent-Type: text/plain\n\nstill her");
  Put("3.eml", "");
  Put("4.eml", std::string(100, '\0'));
  std::string deep = "Subject: core\n\ncore text\n";
  for (int i = 0; i < 60; ++i) deep = "Subject: level\nContent-Type: message/rfc822\n\n" + deep;
  Put("5.eml", deep);
  const auto result = Import(source_);
  EXPECT_EQ(result.messages, 3u);
  ASSERT_EQ(result.losses.size(), 2u);
  EXPECT_EQ(result.losses[0].file.filename(), "3.eml");
  EXPECT_EQ(result.losses[1].file.filename(), "4.eml");
  EXPECT_THAT(Listing(), ElementsAre("Mail: ära ohne Deklaration", "Mail: cut", "Mail: level"));
  EXPECT_EQ(Text(Only().properties(), 0x1000), "Köln\r\n");
}

TEST_F(Mail, SourcesBecomeFolders) {
  const auto letter = [](const std::string& subject, const std::string& more = "") {
    return "From: a@example.com\nSubject: " + subject + "\n" + more + "\ntext\n";
  };
  Put("cur/1:2,S", letter("seen"));
  Put("new/2", letter("new"));
  Put("tmp/3", letter("half delivered"));
  for (const char* sub : {".Projects", ".Projects.2024", ".Entw&APw-rfe"}) {
    Put(std::string(sub) + "/cur/1:2,FR", letter(std::string("in ") + sub));
    fs::create_directories(source_ / sub / "new");
  }
  auto result = Import(source_);
  EXPECT_EQ(result.messages, 5u);
  EXPECT_THAT(Listing(), UnorderedElementsAre("Mail: seen", "Mail: new", "Projects: in .Projects",
                                              "Projects/2024: in .Projects.2024", "Entwürfe: in .Entw&APw-rfe"));
  fs::remove_all(source_);

  const std::string mailbox = "From a@example.com Tue Mar  5 08:30:00 2019\n" + letter("first") +
                              "\nFrom b Tue Mar  5 08:31:00 2019\n" + letter("second", "X-Mozilla-Status: 0009\n") +
                              "\nFrom c Tue Mar  5 08:32:00 2019\n" + letter("third", "Status: RO\n");
  Put("Inbox", mailbox);
  Put("Inbox.msf", "// index");
  Put("Inbox.sbd/Old", mailbox);
  Put("loose/17", letter("numbered"));
  Put("loose/readme.txt", "no mail");
  Put("loose/store.pst", "no mail");
  fs::create_directory_symlink(source_, source_ / "loop");
  result = Import(source_);
  EXPECT_EQ(result.messages, 5u) << "deleted messages are gone";
  EXPECT_THAT(result.losses, IsEmpty());
  EXPECT_THAT(Listing(),
              ElementsAre("Inbox: first", "Inbox: third", "Inbox/Old: first", "Inbox/Old: third", "loose: numbered"));
  // What is no mail says so; what changes shows.
  EXPECT_THROW(mkvault::FindMail(source_ / "absent"), mkvault::SourceError);
  EXPECT_THROW(mkvault::FindMail(Put("x.bin", std::string("\1\2:", 3))), mkvault::SourceError);
  EXPECT_THROW(mkvault::FindMail(source_ / "loose/store.pst"), mkvault::SourceError);
  fs::create_directories(source_ / "empty");
  EXPECT_THROW(mkvault::FindMail(source_ / "empty"), mkvault::SourceError);
  const std::string before = mkvault::StampOf(mkvault::FindMail(source_));
  EXPECT_EQ(mkvault::StampOf(mkvault::FindMail(source_)), before);
  Put("loose/18", letter("one more"));
  EXPECT_NE(mkvault::StampOf(mkvault::FindMail(source_)), before);
}

TEST_F(Mail, BoundariesOfMessagesAreThoseOfTheirFormat) {
  const std::string envelope = "From ann@example.com Tue Mar  5 08:30:00 2019\n",
                    head = "From: a@example.com\nSubject: ";
  Put("box.mbox", "\n" + envelope + head + "one\n\nDear Bob,\n\nFrom here on it is fun.\nSubject: none\n\n" + envelope +
                      head + "two\r\n\r\nlast line without an end");
  const std::string apple = head + "three\n\nfrom a phone\n";
  Put("4.emlx", std::to_string(apple.size()) + "\n" + apple + "<?xml version=\"1.0\"?><plist/>\n");
  Put("letter", "From my window I see the sea.\n");
  fs::create_directory_symlink(source_ / "..", source_ / "up");
  const auto mail = mkvault::FindMail(source_);
  EXPECT_GE(mail.others, 1u);
  EXPECT_TRUE(mkvault::IsPartOf(mail, source_ / "up" / "source" / "4.emlx"));
  EXPECT_FALSE(mkvault::IsPartOf(mail, file_));
  const auto result = Import(source_);
  EXPECT_THAT(result.losses, IsEmpty());
  EXPECT_THAT(Listing(), UnorderedElementsAre("Mail: three", "box: one", "box: two"));
  const auto message = Only();
  EXPECT_THAT(Text(message.properties(), 0x1000), testing::StrEq("from a phone\r\n"));
  for (const char* line : {"From a b 8:30 2019", "From - Tue Mar 05 08:30:00 2019"})
    EXPECT_TRUE(mkvault::IsEnvelope(line));
  for (const char* line : {"From 2019 on", "From: a 08:30 2019", "From 10:30 to 11:45", "From ", ""})
    EXPECT_FALSE(mkvault::IsEnvelope(line)) << line;
}

TEST_F(Mail, AMessageThatEndsTheReaderCostsItselfOnly) {
  for (const char* name : {"1.eml", "2.eml", "3.eml"}) Put(name, std::string("Subject: ") + name + "\n\ntext\n");
  std::ofstream(file_) << "old";
  const auto run = [&](const mkvault::ImportOptions& options) {
    return mkvault::RunSupervised(
        file_,
        [&](const fs::path& out, const mkvault::ImportOptions& told) -> mkvault::Said {
          mkvault::ImportOptions deadly = told;
          deadly.at = [&](mkvault::MailPlace place) {
            told.at(place);
            if (place.file == 1) kill(getpid(), SIGKILL);
          };
          const auto result =
              mkvault::ImportMail(mkvault::FindMail(source_), out, {"Mail", vault::MakeStoreUid("x"), {}}, deadly);
          return {0, std::to_string(result.messages) + " and " + std::to_string(result.losses.size())};
        },
        options);
  };
  auto outcome = run({});
  EXPECT_EQ(outcome.signal, SIGKILL);
  EXPECT_FALSE(outcome.interrupted);
  EXPECT_EQ(outcome.place, (mkvault::MailPlace{1, 0}));
  std::string content;
  std::ifstream(file_) >> content;
  EXPECT_EQ(content, "old") << "a run that fails leaves what was there";
  mkvault::ImportOptions wiser;
  wiser.skipped.insert(outcome.place);
  outcome = run(wiser);
  EXPECT_EQ(outcome.said.text, "2 and 1");
  store_ = vault::Store::Open(file_);
  EXPECT_THAT(Listing(), ElementsAre("Mail: 1.eml", "Mail: 3.eml"));
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()), 2) << "rubbish beside the store";
}

}  // namespace
