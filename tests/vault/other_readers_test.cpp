// A store with everything, in every encoding: our reader and the independent ones (pst-utils, pff-tools) must find in
// it what its builder was told, without a word of complaint.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "tests/support/store_walk.h"
#include "tests/vault/rich_store.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::IsEmpty;
using vault::AttachMethod;
using vault::Encoding;
using vault::MessageBuilder;

std::string ReadFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file) << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

const vault::PropertyData* Given(const vault::PropertyMap& properties, std::uint16_t id) {
  const auto found = properties.find(id);
  return found == properties.end() ? nullptr : &found->second;
}

std::string TextOf(const vault::PropertyMap& properties, std::uint16_t id) {
  const auto* const data = Given(properties, id);
  if (!data) return {};
  const auto text = vault::PropertyValue(vault::MakeTag(id, data->type), data->bytes).AsText();
  return vault::Utf8FromUtf16(id == vault::prop::kSubject ? vault::ParseSubject(text).text : text);
}

std::int32_t IntOf(const vault::PropertyMap& properties, std::uint16_t id) {
  const auto* const data = Given(properties, id);
  return data ? vault::PropertyValue(vault::MakeTag(id, data->type), data->bytes).AsInt32() : 0;
}

std::string ContentOf(const vault::AttachmentBuilder& attachment) {
  const auto* const data = Given(attachment.properties(), vault::prop::kAttachData);
  if (!data) return {};
  std::vector<std::uint8_t> bytes = data->bytes;
  if (data->source) {
    bytes.resize(data->source->size());
    vault::SourceReader(*data->source).Fill(bytes);
  }
  return {bytes.begin(), bytes.end()};
}

std::string NameOf(const vault::FolderBuilder& folder) {
  return TextOf(folder.properties(), vault::prop::kDisplayName);
}
std::string NameOf(const vault::AttachmentBuilder& attachment) {
  return TextOf(attachment.properties(), vault::prop::kAttachLongFilename);
}
bool IsAppointment(const MessageBuilder& message) {
  return TextOf(message.properties(), vault::prop::kMessageClass) == "IPM.Appointment";
}

// The attachments whose content other readers can write to a file.
bool HasContent(const vault::AttachmentBuilder& attachment) {
  const auto method = static_cast<AttachMethod>(IntOf(attachment.properties(), vault::prop::kAttachMethod));
  return method == AttachMethod::kByValue || method == AttachMethod::kOle;
}

class OtherReaders : public testing::TestWithParam<Encoding> {
 protected:
  void SetUp() override {
    fs::create_directories(folder_);
    wanted_.Write(folder_ / "store.pst");
  }
  void TearDown() override { fs::remove_all(folder_); }

  // Runs a command line in the test's folder and skips the test where the tool is not installed; all that it printed.
  std::string Run(const std::string& tool, const std::string& arguments) {
    const auto output = folder_ / (tool + ".out");
    const std::string line = "cd '" + folder_.string() + "' && LC_ALL=C.UTF-8 TZ=UTC " + tool + " " + arguments +
                             " >'" + output.string() + "' 2>&1";
    EXPECT_EQ(std::system(line.c_str()), 0) << line << "\n" << ReadFile(output);
    return ReadFile(output);
  }
  static bool Installed(const char* tool) {
    return std::system(("command -v " + std::string(tool) + " >/dev/null").c_str()) == 0;
  }

  const fs::path folder_ = fs::temp_directory_path() / ("vault-readers-" + std::to_string(::getpid()));
  const vault::StoreBuilder wanted_ = test::RichStore(GetParam());
};

TEST_P(OtherReaders, OurOwnFindsEveryProperty) {
  const auto store = vault::Store::Open(folder_ / "store.pst");
  EXPECT_EQ(store->encoding(), GetParam());
  EXPECT_THAT(test::Differences(*store, wanted_), IsEmpty());
  EXPECT_THAT(test::WalkStore(*store).errors, IsEmpty());
}

void List(const vault::FolderBuilder& folder, std::multiset<std::string>& lines) {
  if (!folder.messages().empty() || !folder.folders().empty()) lines.insert("Folder \"" + NameOf(folder) + "\"");
  for (const MessageBuilder& m : folder.messages()) {
    const std::string subject = TextOf(m.properties(), vault::prop::kSubject);
    lines.insert(IsAppointment(m) ? "Appointment\tSUMMARY: " + subject +
                                        "\tSTART: 20240301T000000Z\tEND: 20240302T000000Z\tALL DAY: No"
                                  : "Email\tFrom: " + TextOf(m.properties(), 0x0C1A) + "\tSubject: " + subject);
  }
  for (const auto& child : folder.folders()) List(child, lines);
}

TEST_P(OtherReaders, ListsAreExact) {
  if (!Installed("lspst") || !Installed("pffinfo")) GTEST_SKIP() << "pst-utils or pff-tools is not installed";
  std::multiset<std::string> wanted, found;
  for (const auto& child : wanted_.top().folders()) List(child, wanted);
  List(wanted_.deleted_items(), wanted);
  for (std::string& line : Lines(Run("lspst", "store.pst"))) found.insert(std::move(line));
  EXPECT_EQ(found, wanted);

  const std::string info = Run("pffinfo", "store.pst");
  constexpr const char* kEncodings[] = {"none", "compressible", "high"};
  EXPECT_THAT(info, HasSubstr("64-bit"));
  EXPECT_THAT(info, HasSubstr(std::string("Encryption type:\t") + kEncodings[static_cast<int>(GetParam())]));
  EXPECT_THAT(info, HasSubstr("Subtree, Wastbox, Finder"));
  EXPECT_THAT(info, testing::Not(HasSubstr("nable to")));
}

std::string Numbered(const char* word, std::size_t number) {
  std::string digits = std::to_string(number);
  return word + std::string(5 - digits.size(), '0') + digits;
}

void ExpectExportedMessage(const fs::path& here, const MessageBuilder& message) {
  SCOPED_TRACE(here);
  const auto& p = message.properties();
  if (IsAppointment(message)) {
    const std::string text = ReadFile(here / "Appointment.txt");
    for (const char* part : {"Meeting", "Room 5", "Mar 01, 2024 00:00:00", "Mar 02, 2024 00:00:00"}) {
      EXPECT_THAT(text, HasSubstr(part));
    }
    return;
  }
  const std::string headers = ReadFile(here / "OutlookHeaders.txt");
  EXPECT_THAT(headers, HasSubstr("Subject:\t\t\t\t" + TextOf(p, vault::prop::kSubject) + "\n"));
  EXPECT_THAT(headers, HasSubstr("Sender email address:\t\t\t" + TextOf(p, 0x0C1F) + "\n"));
  EXPECT_THAT(headers, HasSubstr(IntOf(p, vault::prop::kMessageFlags) & 1 ? "(Read" : "(Unread"));
  EXPECT_EQ(ReadFile(here / "Message.txt"), TextOf(p, vault::prop::kBody));
  if (const auto* const html = Given(p, 0x1013)) {
    EXPECT_THAT(ReadFile(here / "Message.html"), HasSubstr(std::string(html->bytes.begin(), html->bytes.end())));
  }
  if (Given(p, 0x1009)) {
    EXPECT_THAT(ReadFile(here / "Message.rtf"), HasSubstr("Hello, hello, hello"));
  }

  std::string wanted;
  constexpr const char* kTypes[] = {"", "To", "CC", "BCC"};
  for (const auto& recipient : message.recipients()) {
    const auto& r = recipient.properties();
    wanted += "Display name:\t\t" + TextOf(r, 0x3001) + "\nEmail address:\t\t" + TextOf(r, 0x3003) +
              "\nAddress type:\t\t" + TextOf(r, 0x3002) + "\nRecipient type:\t\t" + kTypes[IntOf(r, 0x0C15)] + "\n\n";
  }
  if (!wanted.empty()) {
    EXPECT_EQ(ReadFile(here / "Recipients.txt"), wanted);
  }

  std::size_t number = 0, wanted_files = 0, files = 0;
  for (const auto& attachment : message.attachments()) {
    ++number;
    const fs::path attached = here / "Attachments";
    if (attachment.embedded()) {
      ++wanted_files;
      ExpectExportedMessage(attached / Numbered("Attachment", number) / "Message00001", *attachment.embedded());
    } else if (HasContent(attachment)) {
      ++wanted_files;
      EXPECT_TRUE(ReadFile(attached / (std::to_string(number) + "_" + NameOf(attachment))) == ContentOf(attachment));
    }
  }
  if (fs::exists(here / "Attachments")) {
    files = static_cast<std::size_t>(std::distance(fs::directory_iterator(here / "Attachments"), {}));
  }
  EXPECT_EQ(files, wanted_files);
}

void ExpectExported(const fs::path& above, const vault::FolderBuilder& folder) {
  const fs::path here = above / NameOf(folder);
  std::set<std::string> found, wanted;
  for (const auto& entry : fs::directory_iterator(here)) found.insert(entry.path().filename());
  std::size_t number = 0;
  for (const MessageBuilder& message : folder.messages()) {
    wanted.insert(Numbered(IsAppointment(message) ? "Appointment" : "Message", ++number));
    ExpectExportedMessage(here / *wanted.rbegin(), message);
  }
  for (const auto& child : folder.folders()) {
    wanted.insert(NameOf(child));
    ExpectExported(here, child);
  }
  if (NameOf(folder) == "Top of Personal Folders") wanted.insert("Deleted Items");
  EXPECT_EQ(found, wanted) << here;
}

TEST_P(OtherReaders, ItemsExported) {
  if (!Installed("pffexport")) GTEST_SKIP() << "pff-tools is not installed";
  // It knows no attachments by reference but those of one kind, and says so of each other.
  std::set<std::string> complaints;
  for (const std::string& line : Lines(Run("pffexport", "-q -m all -f all -t out store.pst"))) {
    if (line.find("export_handle") != line.npos || line.find("libpff") != line.npos) complaints.insert(line);
  }
  EXPECT_THAT(complaints,
              testing::IsSubsetOf({"libpff_attachment_get_type: unsupported attachment method: 0x00000004.",
                                   "libpff_attachment_get_type: unsupported attachment method: 0x00000007.",
                                   "export_handle_export_attachment: unable to retrieve attachment type."}));
  const fs::path out = folder_ / "out.export";
  ExpectExported(out, wanted_.top());
  ExpectExported(out / "Top of Personal Folders", wanted_.deleted_items());
  EXPECT_FALSE(fs::exists(folder_ / "out.orphans")) << "a node that no folder leads to";
}

std::string NameOfEncoding(const testing::TestParamInfo<Encoding>& info) {
  constexpr const char* kNames[] = {"None", "Permute", "Cyclic"};
  return kNames[static_cast<int>(info.param)];
}
INSTANTIATE_TEST_SUITE_P(Encodings, OtherReaders,
                         testing::Values(Encoding::kNone, Encoding::kPermute, Encoding::kCyclic), NameOfEncoding);

}  // namespace
