#include "index/explain.h"

#include <algorithm>

#include "index/output.h"
#include "index/text.h"

namespace hoardex {
namespace {

using nlohmann::json;

// The host's own filters read no more of an attachment.
constexpr int64_t kContentLimit = 256ll << 20;

// What lines of the module's log mean for the item. A "*" in a sentence stands for what the line has in its last
// brackets or after its last " - type - ".
struct Meaning {
  const char* line;
  const char* sentence;
  bool missing;  // something of the item is left out
};
constexpr Meaning kMeanings[] = {
    {"Cannot allocate MAPI helper object",
     "The vault could not be opened, so nothing in it can be read; is it a message store, and is it whole? "
     "hoardex index names the reason.",
     true},
    {"GetMsgFromURL() - OpenEntry failed",
     "The vault holds no message with the identifier of this URL, or it is damaged. The message may have been deleted "
     "or "
     "moved since it was listed; hoardex index brings the index up to date.",
     true},
    {"CStringToEntryID", "The URL is damaged: its identifier is no number.", true},
    {"OpenEntry for folder failed", "The vault holds no folder with the identifier of this URL, or it is damaged.",
     true},
    {"OpenEntry of IPM root folder failed", "The vault's top folder is damaged, so nothing below it is found.", true},
    {"GetProps for IPM root folder failed", "The vault names no top folder, so nothing below it is found.", true},
    {"GetHierarchyTable failed", "The list of its folders is damaged.", true},
    {"GetContentsTable failed", "The list of its messages is damaged.", true},
    {"RowCount for attachment table not correct",
     "The message has no attachment with the key of this URL; it may have been removed since it was listed.", true},
    {"GetProps for ref-attachment failed",
     "The attachment is only a reference to a file elsewhere. Such files are never opened, because a mail could name "
     "any "
     "file or network share; the attachment is found by its name.",
     true},
    {"embedded-msg-attachment failed", "The attached message is damaged.", true},
    {"value-attachment failed", "The attachment's content is damaged, or there is no room for its temporary copy.",
     true},
    {"OLE-attachment failed", "The attached document is damaged, or there is no room for its temporary copy.", true},
    {"Redirection case GetFilter failed",
     "There is no text filter for the attachment's type, so its content is not indexed; it is found by its name.",
     true},
    {"Redirection case Load failed", "The attachment's content is not what its type's text filter can read.", true},
    {"Redirection case Init failed", "The text filter of the attachment's type refused its content.", true},
    {"URL_IS_ATTACHMENT - WDS Group policy is set to ignore all",
     "The group policy \"prevent indexing e-mail attachments\" is set, so no attachment is indexed.", true},
    {"URL_IS_ATTACHMENT - WDS Group policy is set to ignore specific",
     "The group policy excludes attachments of the type *.", true},
    {"PROP_ATTACHMENT_NAMES - WDS Group policy is set to ignore all",
     "The group policy \"prevent indexing e-mail attachments\" is set, so the message's attachments are neither named "
     "nor "
     "indexed.",
     true},
    {"PROP_ATTACHMENT_NAMES - WDS Group policy is set to ignore specific",
     "The group policy excludes attachments of the type *: one is neither named nor indexed.", true},
    {"IFilter\tnot found for extension",
     "There is no text filter for attachments of the type .*: they are found by their names only.", true},
    {"Attachment extension could not be extracted",
     "An attachment has no type (embedded messages have none): it is found by its name only, its content cannot be "
     "read "
     "yet.",
     true},
    {"Attachment modified time could not be extracted",
     "An attachment has no time: it is found by its name only, since nothing would tell whether it has changed.", true},
    {"Attachment key could not be extracted", "An attachment has no key: it is found by its name only.", true},
    {"Attachment name could not be extracted", "An attachment has no name.", true},
    {"attachment table failed", "The list of its attachments is damaged: they are not indexed.", true},
    {"GetAttachmentTable for message failed", "The list of its attachments is damaged: they are not indexed.", true},
    {"could not get PR_BODY", "Its text is damaged: it is found by its subject, sender and the like.", true},
    {"OpenProperty for body failed", "Its text is damaged: it is found by its subject, sender and the like.", true},
    {"Stream Read failed", "Its text is damaged from some place on: what came before is indexed.", true},
    {"Row count for attachment table is zero", "It has no attachments.", false},
    {"Last modification time property of message not set",
     "A message in it has no modification time, so it is looked at again in every run.", false},
};

constexpr const char* kFailureWords[] = {"fail",          "Fail",   "Exception",   "could not",   "Could not",
                                         "Cannot",        "NULL",   "not found",   "not correct", "Unhandled",
                                         "out of memory", "Out of", "running out", "undefined",   "error code"};

std::string ArgumentOf(const std::string& line) {
  constexpr std::string_view kType = "type - ";
  if (const size_t type = line.rfind(kType); type != std::string::npos) {
    std::string rest = line.substr(type + kType.size());
    while (!rest.empty() && (rest.back() == ';' || rest.back() == ' ')) rest.pop_back();
    return rest;
  }
  const size_t open = line.rfind('['), close = line.rfind(']');
  return open != std::string::npos && close != std::string::npos && open < close
             ? line.substr(open + 1, close - open - 1)
             : std::string();
}

// "HoardexSP(101):CHoardexSP::…" without the process and time before it.
std::string_view MessageOf(std::string_view line) {
  const size_t place = line.find("] ");
  const size_t colon = line.find("):", place == std::string_view::npos ? 0 : place);
  return colon == std::string_view::npos ? line : line.substr(colon + 2);
}

bool IsFailure(const std::string& line) {
  const std::string_view message = MessageOf(line);
  // A result that is told and is success.
  if (message.find("[0x00000000]") != std::string_view::npos) return false;
  return std::any_of(std::begin(kFailureWords), std::end(kFailureWords),
                     [&](const char* word) { return message.find(word) != std::string_view::npos; });
}

class Explainer {
 public:
  explicit Explainer(const ItemFacts& facts) : facts_(facts), name_(Name(facts.kind)) {}

  Explanation Run() {
    if (!facts_.vault_trouble.empty()) {
      Say(facts_.vault_trouble);
    } else {
      SayPromised();
      SayOpened();
      SayLeftOut();
    }
    SayIndexed();
    out_.verdict = Verdict();
    return std::move(out_);
  }

 private:
  static std::string Name(ItemKind kind) {
    return kind == ItemKind::kRoot ? "list of vaults" : std::string(KindName(kind));
  }
  void Say(const std::string& sentence) { out_.sentences.push_back(sentence); }
  void Miss(const std::string& sentence) {
    if (std::find(out_.left_out.begin(), out_.left_out.end(), sentence) != out_.left_out.end()) return;
    out_.left_out.push_back(sentence);
    Say(sentence);
  }

  void SayPromised() {
    if (!facts_.container_asked) return;
    if (facts_.link) {
      Say("Promised: its " + std::string(ContainerName()) + " lists it" +
          (facts_.undated                  ? ", without a time of its own; so it is looked at again in every run."
           : facts_.link->modified.empty() ? "."
                                           : ", last modified " + OneLine(facts_.link->modified) + "."));
    } else if (!facts_.container_error.empty()) {
      Say("Not promised: its " + std::string(ContainerName()) + " cannot be listed (" +
          OneLine(facts_.container_error) + ").");
    } else {
      Say("Not promised: its " + std::string(ContainerName()) + " does not list it" + WhyNotListed());
    }
  }

  const char* ContainerName() const {
    switch (facts_.kind) {
      case ItemKind::kAttachment:
        return "message";
      case ItemKind::kVault:
        return "folder of vaults";
      default:
        return "folder";
    }
  }

  const char* WhyNotListed() const {
    switch (facts_.kind) {
      case ItemKind::kAttachment:
        return ": an attachment is listed when its type has a text filter, no policy excludes it, and it has a key and "
               "a "
               "time.";
      case ItemKind::kFolder:
        return ". Folders below the top of the mail are browsed; search folders, and what lies beside the top, are "
               "not.";
      case ItemKind::kMessage:
        return ": it was deleted or moved, or it is hidden or lies in the store's top folder, which are not browsed.";
      default:
        return ".";
    }
  }

  void SayOpened() {
    if (!facts_.lost.empty()) {
      Miss("Not opened: " + OneLine(facts_.lost) +
           ". It was tried twice, each time with a host of its own; hoardex index --retry tries it again.");
      return;
    }
    record_ = Record::FromJson(facts_.record);
    const std::string given = Given();
    if (record_.error && given.empty()) {
      Miss("Not opened: " + record_.error->Describe() + ".");
      if (record_.error->name == "E_NOTIMPL" && facts_.kind == ItemKind::kAttachment)
        Miss("The attachment is a message of its own; the content of such attachments cannot be read yet.");
    } else {
      Say("Opened, and it gave " + given + ".");
      if (record_.error) Miss("Then it failed: " + record_.error->Describe() + "; what comes after is left out.");
    }
    if (facts_.kind == ItemKind::kAttachment && record_.size.value_or(0) > kContentLimit)
      Miss("Only the first 256 MB of its content are read.");
  }

  // "27 values, a text of 512 characters and 2 links"; empty when there was nothing.
  std::string Given() const {
    std::vector<std::string> parts;
    const auto chunks = facts_.record.find("chunks");
    int64_t values = static_cast<int64_t>(record_.properties.size());
    if (chunks != facts_.record.end() && chunks->is_array())
      values =
          std::count_if(chunks->begin(), chunks->end(),
                        [](const json& chunk) { return chunk.is_object() && chunk.value("type", "") == "value"; }) -
          static_cast<int64_t>(record_.links.size());
    if (values > 0) parts.push_back(Counted(values, "value"));
    if (!record_.text.empty()) {
      const auto characters = std::count_if(record_.text.begin(), record_.text.end(),
                                            [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; });
      parts.push_back("a text of " + Counted(characters, "character"));
    }
    const bool message = facts_.kind == ItemKind::kMessage;
    if (!record_.links.empty())
      parts.push_back(Counted(static_cast<int64_t>(record_.links.size()), "link") +
                      (message ? " to attachments" : " to what it holds"));
    std::string out;
    for (size_t i = 0; i < parts.size(); ++i) out += (i == 0 ? "" : i + 1 == parts.size() ? " and " : ", ") + parts[i];
    return out;
  }

  void SayLeftOut() {
    const auto log = facts_.record.find("log");
    if (log != facts_.record.end() && log->is_array()) {
      for (const json& line : *log) {
        if (!line.is_string()) continue;
        const std::string text = line.get<std::string>();
        for (const Meaning& meaning : kMeanings) {
          if (text.find(meaning.line) == std::string::npos) continue;
          std::string sentence = meaning.sentence;
          if (const size_t star = sentence.find('*'); star != std::string::npos)
            sentence.replace(star, 1, OneLine(ArgumentOf(text)));
          meaning.missing ? Miss(sentence) : Say(sentence);
          break;
        }
        out_.log.push_back({OneLine(text), IsFailure(text)});
      }
    }
    if (facts_.kind == ItemKind::kMessage && !record_.error) {
      const std::string names = record_.Text("System.Message.AttachmentNames");
      if (!names.empty()) Say("Its attachments are found by these names: " + OneLine(names) + ".");
      if (record_.text.empty()) Say("It has no text of its own.");
    }
    const auto policy = facts_.record.find("policy");
    if (policy == facts_.record.end() || !policy->is_object()) return;
    if (policy->value("prevented", false)) Say("Policy on this machine: attachments are not indexed.");
    const std::string excluded = policy->value("excluded", std::string());
    if (!excluded.empty())
      Say("Policy on this machine: attachments of these types are not indexed: " + OneLine(excluded));
  }

  void SayIndexed() {
    if (!facts_.index_there) return Say("There is no index yet: hoardex index makes one.");
    if (!facts_.status) {
      return Say("The index does not know it" +
                 std::string(facts_.link ? "; hoardex index brings the index up to date." : "."));
    }
    const ItemStatus& status = *facts_.status;
    switch (status.state) {
      case ItemState::kNew:
        Say("In the index it is waiting for its turn: the last run was stopped before; hoardex index goes on.");
        return;
      case ItemState::kFailed:
        Miss("In the last run it failed: " + OneLine(status.error) + ". Every run of hoardex index tries it again.");
        return;
      case ItemState::kLost:
        Miss("In the index it is given up, because it ended the protocol host twice: " + OneLine(status.error) +
             ". It is tried again when it has changed, or by hoardex index --retry.");
        return;
      case ItemState::kDone:
        break;
    }
    std::string sentence = "The index has it";
    if (!status.done_time.empty()) sentence += " as of " + OneLine(status.done_time);
    if (facts_.link && !facts_.link->modified.empty() && status.done_time != facts_.link->modified) {
      sentence += "; it has changed since, and hoardex index brings it up to date";
    } else if (status.queued) {
      sentence += "; it is waiting to be looked at again";
    }
    Say(sentence + ".");
  }

  std::string Verdict() const {
    const bool indexed = facts_.status && facts_.status->state == ItemState::kDone;
    if (!facts_.vault_trouble.empty())
      return indexed ? "The " + name_ + " can be found, but not read again." : "The " + name_ + " cannot be read.";
    const bool read = facts_.lost.empty() && !(record_.error && Given().empty());
    if (!read) return "The " + name_ + " cannot be read.";
    const bool whole = out_.left_out.empty(), container = IsContainer(facts_.kind);
    if (indexed || container)
      return "The " + name_ + (container ? " can be read" : " can be found") +
             (whole ? "." : ", but not everything in it.");
    return "The " + name_ + " can be read, but " + (whole ? "is" : "not everything in it, and it is") +
           " not in the index.";
  }

  const ItemFacts& facts_;
  const std::string name_;
  Record record_;
  Explanation out_;
};

std::string WithoutSize(const std::string& url) {
  const size_t open = url.rfind("[["), close = url.rfind("]]");
  return open == std::string::npos || close == std::string::npos || close < open
             ? url
             : url.substr(0, open) + url.substr(close + 2);
}

}  // namespace

std::string ContainerOf(const std::string& url) {
  const ItemKind kind = KindOfUrl(url);
  if (kind == ItemKind::kUnknown || kind == ItemKind::kRoot) return {};
  if (kind == ItemKind::kAttachment) return url.substr(0, url.find(".zkm") + 4);
  const size_t last = url.rfind('/', url.size() - 2);
  return last == std::string::npos ? std::string() : url.substr(0, last + 1);
}

bool IsSameItem(const std::string& link, const std::string& url) {
  const auto plain = [](std::string text) {
    while (!text.empty() && text.back() == '/') text.pop_back();
    return KindOfUrl(text) == ItemKind::kMessage ? WithoutSize(text) : text;
  };
  return plain(link) == plain(url);
}

Explanation Explain(const ItemFacts& facts) {
  return Explainer(facts).Run();
}

}  // namespace hoardex
