#include <algorithm>

#include "index/doctor.h"
#include "index/output.h"
#include "index/scope.h"
#include "index/text.h"

namespace hoardex {
namespace {

using nlohmann::json;

constexpr const char* kRegisterAgain = "hoardex doctor --fix registers it again.";
constexpr size_t kNamed = 3;

// Facts may come from a host that is not the one of this build: what is not as expected reads as absent.
std::string Text(const json& object, const char* key) {
  const auto found = object.is_object() ? object.find(key) : object.end();
  return object.is_object() && found != object.end() && found->is_string() ? OneLine(found->get<std::string>()) : "";
}
const json& Part(const json& object, const char* key) {
  static const json none;
  if (!object.is_object()) return none;
  const auto found = object.find(key);
  return found == object.end() ? none : *found;
}
bool Flag(const json& object, const char* key) {
  const json& value = Part(object, key);
  return value.is_boolean() && value.get<bool>();
}
int64_t Number(const json& object, const char* key) {
  const json& value = Part(object, key);
  return value.is_number() ? value.get<int64_t>() : 0;
}

std::string Joined(const json& names, size_t most) {
  std::string text;
  size_t count = 0;
  for (const json& name : names) {
    if (!name.is_string() || ++count > most) continue;
    text += (text.empty() ? "" : ", ") + OneLine(name.get<std::string>());
  }
  return count > most ? text + " and " + std::to_string(count - most) + " more" : text;
}

std::string CodeOf(const json& result) {
  const std::string name = Text(result, "name"), code = Text(result, "code");
  return name.empty() ? code : code + " " + name;
}

std::string ErrorText(const json& error) {
  return Text(error, "step") + " gave " + CodeOf(error);
}

Finding Good(const char* check, std::string found) {
  return {check, Verdict::kOk, std::move(found), ""};
}
Finding Bad(const char* check, std::string found, std::string remedy) {
  return {check, Verdict::kWrong, std::move(found), std::move(remedy)};
}

// Entries that have a check of their own.
enum class Sort { kThreading, kTypeLibrary, kOther };
Sort SortOf(const json& entry) {
  if (Text(entry, "name") == "ThreadingModel") return Sort::kThreading;
  return Text(entry, "key").find("\\TypeLib\\") != std::string::npos ? Sort::kTypeLibrary : Sort::kOther;
}

Finding JudgeEntries(const json& registration, Sort sort, const char* check, const char* good) {
  std::string differing;
  size_t count = 0;
  for (const json& entry : Part(registration, "differing")) {
    if (SortOf(entry) != sort || ++count > kNamed) continue;
    const std::string name = Text(entry, "name");
    differing += (differing.empty() ? "" : "; ") + Text(entry, "key") + (name.empty() ? "" : " " + name) +
                 (Part(entry, "found").is_string()
                      ? " is \"" + Text(entry, "found") + "\", not \"" + Text(entry, "expected") + "\""
                      : " is missing");
  }
  if (!registration.is_object()) return Bad(check, "the host does not tell", "hoardex setup builds it anew.");
  if (count == 0) return Good(check, good);
  if (count > kNamed) differing += "; and " + std::to_string(count - kNamed) + " more";
  return Bad(check, differing, kRegisterAgain);
}

Finding JudgeServer(const char* check, const json& server, const std::string& built) {
  const std::string path = Text(server, "path");
  if (path.empty()) return Bad(check, "no library is registered for it", kRegisterAgain);
  if (!Flag(server, "exists")) return Bad(check, path + " is not there", kRegisterAgain);
  if (!built.empty() && AsciiLower(path) != AsciiLower(built))
    return Bad(check, path + " is not the one that was built (" + built + ")", kRegisterAgain);
  return Good(check, path);
}

Finding JudgeBitness(const json& facts) {
  std::string wrong;
  int count = 0;
  for (const char* server : {"module", "mail_client", "index_server", "root_server", "converter"}) {
    const json& library = Part(facts, server);
    if (!Flag(library, "exists")) continue;
    ++count;
    const int64_t bits = Number(library, "bitness");
    if (bits == 64 || wrong.find(Text(library, "path")) != std::string::npos) continue;
    wrong += (wrong.empty() ? "" : "; ") + Text(library, "path") +
             (bits == 0 ? " is no library that runs here" : " has " + std::to_string(bits) + " bits, not 64");
  }
  return wrong.empty() ? Good("bitness", "64 bits in all " + std::to_string(count) + " libraries")
                       : Bad("bitness", wrong,
                             "Registered is what cannot be loaded. hoardex doctor --fix registers what was built.");
}

Finding JudgeMailClient(const json& client, const Environment& environment) {
  const std::string path = Text(client, "path");
  const char* fix = environment.provider.empty() ? "Install the mail client again."
                                                 : "hoardex doctor --fix registers HoardexMapi.dll as mail client.";
  if (!Flag(client, "key")) return Bad("mail client", "none is registered", fix);
  if (path.empty() && Text(client, "component").empty())
    return Bad("mail client", "its registration names no library (DLLPathEx)", fix);
  if (!path.empty() && !Flag(client, "exists")) return Bad("mail client", path + " is not there", fix);
  return Good("mail client", path.empty() ? "component " + Text(client, "component") : path);
}

// Another one than the mail client's own does not know its messages.
Finding JudgeConverter(const json& converter, const Environment& environment) {
  Finding finding = JudgeServer("converter", converter, environment.provider);
  if (finding.verdict == Verdict::kOk) return finding;
  if (Text(converter, "path").empty())
    finding.found = "no MIME converter is registered: mails are not exported as .eml";
  else if (Flag(converter, "exists"))
    finding.remedy = "Another program's converter is not replaced: uninstall it, then hoardex setup.";
  return finding;
}

Finding JudgeMapi(const json& client, const json& mail) {
  // Found through the installer: only the module finds it.
  if (Text(client, "path").empty() && !Text(client, "component").empty()) return Good("MAPI", "found by the installer");
  constexpr const char* kRemedy =
      "The registered mail client is of no use; hoardex doctor --fix registers HoardexMapi.dll.";
  if (!Text(mail, "failed").empty()) return Bad("MAPI", "when it was loaded, " + Text(mail, "failed"), kRemedy);
  if (Text(mail, "code") != "0x00000000") return Bad("MAPI", "it does not load: " + CodeOf(mail), kRemedy);
  if (const json& missing = Part(mail, "missing"); !missing.empty())
    return Bad("MAPI", "it lacks " + Joined(missing, kNamed), kRemedy);
  if (Part(mail, "error").is_object()) return Bad("MAPI", ErrorText(Part(mail, "error")), kRemedy);
  return Good("MAPI", "loads and answers");
}

Finding JudgeClass(const json& made) {
  constexpr const char* kRemedy =
      "See the checks above; the log HoardexPH.log in the prefix's AppData/Local says more.";
  if (!Text(made, "failed").empty()) return Bad("module", "when it was loaded, " + Text(made, "failed"), kRemedy);
  if (Text(made, "code") == "0x00000000") return Good("module", "loads with MAPI and makes its object");
  return Bad("module", "its object cannot be made: " + CodeOf(made), kRemedy);
}

Finding JudgeVaultFolder(const json& folders) {
  for (const json& folder : folders)
    if (!Flag(folder, "exists"))
      return Bad("vault folder", Text(folder, "folder") + " is not there", "hoardex doctor --fix makes it.");
  if (!folders.is_array() || folders.empty())
    return Bad("vault folder", "the registry names none", "hoardex doctor --fix names V:\\Tessary.");
  std::string names;
  for (const json& folder : folders) names += (names.empty() ? "" : ", ") + Text(folder, "folder");
  return Good("vault folder", names);
}

Finding JudgePolicy(const json& policy) {
  constexpr const char* kRemedy = "The administrator's group policy says so; it is not changed here.";
  if (Flag(policy, "prevented")) return {"policy", Verdict::kWarning, "no attachment is indexed", kRemedy};
  const std::string excluded = Text(policy, "excluded");
  if (!excluded.empty())
    return {"policy", Verdict::kWarning, "these attachments are not indexed: " + excluded, kRemedy};
  return Good("policy", "none on attachments");
}

// The server of a class of the index that is another's, which registration leaves alone; empty for none.
std::string AnothersServer(const json& server, const std::string& built) {
  const auto file_name = [](const std::string& path) { return AsciiLower(path.substr(path.find_last_of("\\/") + 1)); };
  const std::string path = Text(server, "path");
  if (Text(server, "title").starts_with("Hoardex system index")) return {};
  if (path.empty()) return Text(server, "program");
  return built.empty() || file_name(path) == file_name(built) ? "" : path;
}

Finding JudgeSearchManager(const json& facts, const Environment& environment) {
  for (const char* name : {"index_server", "root_server"}) {
    const json& server = Part(facts, name);
    if (const std::string another = AnothersServer(server, environment.stand_in); !another.empty())
      return Bad("search manager", another + " is registered for it",
                 "It is another's and is left alone: once " + another +
                     " is unregistered, hoardex doctor --fix registers the stand-in.");
    Finding finding = JudgeServer("search manager", server, environment.stand_in);
    if (finding.verdict != Verdict::kOk) return finding;
  }
  const json& index = Part(facts, "index");
  if (!Text(index, "failed").empty())
    return Bad("search manager", "when it was asked, " + Text(index, "failed"), kRegisterAgain);
  if (Part(index, "error").is_object()) return Bad("search manager", ErrorText(Part(index, "error")), kRegisterAgain);
  return Good("search manager", "answers");
}

Finding JudgeRoot(const json& index) {
  const std::string root = Text(index, "root");
  const json& roots = Part(index, "roots");
  const bool there = std::any_of(roots.begin(), roots.end(), [&](const json& url) {
    return url.is_string() && AsciiLower(ContainerUrl(url.get<std::string>())) == AsciiLower(ContainerUrl(root));
  });
  if (root.empty() || !there)
    return Bad("search root", "the user's search root is not registered", "hoardex doctor --fix adds it.");
  std::vector<ScopeRule> rules;
  for (const json& rule : Part(index, "rules"))
    rules.push_back({Text(rule, "pattern"), Flag(rule, "included"), Flag(rule, "default")});
  if (CrawlScope({root}, rules).Includes(root)) return Good("search root", root);
  for (ScopeRule& rule : rules) rule.included = true;
  if (CrawlScope({root}, rules).Includes(root))
    return Bad("search root", root + " is excluded by a rule of the index",
               "Take the rule back in the settings of the index.");
  return Bad("search root", root + " is there, but no rule includes it",
             "hoardex setup --remove and then hoardex setup make both anew.");
}

Finding JudgeItemTypes(const json& unnamed) {
  if (!unnamed.is_array() || unnamed.empty()) return Good("item types", "all have names");
  return Bad("item types", "without a name: " + Joined(unnamed, 5), "hoardex doctor --fix names them.");
}

Finding JudgeProfiles(const json& mail) {
  const json& profiles = Part(mail, "profiles");
  if (!profiles.is_array()) return {"profiles", Verdict::kWarning, "they cannot be listed", "See the check of MAPI."};
  const int64_t in_use = Number(mail, "in_use");
  if (profiles.empty()) return Good("profiles", in_use ? Counted(in_use, "profile") + " in use" : "none left over");
  return Bad("profiles", "left over: " + Joined(profiles, kNamed), "hoardex doctor --fix deletes them.");
}

Finding JudgeTemporary(const json& temporary) {
  const json& files = Part(temporary, "files");
  const int64_t in_use = Number(temporary, "in_use");
  if (files.empty()) return Good("temporary", in_use ? Counted(in_use, "copy") + " in use" : "none left over");
  return Bad("temporary", "copies of attachments that nobody uses: " + Joined(files, kNamed),
             "hoardex doctor --fix deletes them.");
}

Finding JudgeFilters(const json& filters) {
  const json &with = Part(filters, "with"), &without = Part(filters, "without");
  if (with.empty())
    return {"filters", Verdict::kWarning, "no type of attachment has one",
            "Attachments are found by their names only."};
  return Good("filters", "for the text of " + Joined(with, 20) +
                             (without.empty() ? "" : "; found by their names only: " + Joined(without, 20)));
}

Finding JudgeChanges(const json& index) {
  const json& changes = Part(index, "changes");
  if (!changes.is_number()) return {"changes", Verdict::kWarning, "they cannot be counted", "See the search manager."};
  const int64_t waiting = changes.get<int64_t>();
  if (waiting == 0) return Good("changes", "none wait");
  return {"changes", Verdict::kWarning,
          (Flag(index, "more") ? "at least " : "") + Counted(waiting, "reported change") +
              (waiting == 1 ? " waits" : " wait"),
          "hoardex index --changes takes them up."};
}

}  // namespace

std::vector<Finding> JudgeWindowsSide(const json& facts, const Environment& environment) {
  const json &registration = Part(facts, "registration"), &mail = Part(facts, "mail"), &index = Part(facts, "index");
  const std::string entries = std::to_string(Number(registration, "entries")) + " entries";
  return {JudgeEntries(registration, Sort::kOther, "registration", entries.c_str()),
          JudgeEntries(registration, Sort::kThreading, "threading", "Both"),
          JudgeEntries(registration, Sort::kTypeLibrary, "type library", "registered"),
          JudgeServer("class server", Part(facts, "module"), environment.module),
          JudgeBitness(facts),
          JudgeMailClient(Part(facts, "mail_client"), environment),
          JudgeConverter(Part(facts, "converter"), environment),
          JudgeMapi(Part(facts, "mail_client"), mail),
          JudgeClass(Part(facts, "class")),
          JudgeVaultFolder(Part(facts, "vault_folders")),
          JudgeSearchManager(facts, environment),
          JudgeRoot(index),
          JudgeChanges(index),
          JudgePolicy(Part(facts, "policy")),
          JudgeFilters(Part(facts, "filters")),
          JudgeItemTypes(Part(facts, "unnamed_item_types")),
          JudgeProfiles(mail),
          JudgeTemporary(Part(facts, "temporary"))};
}

}  // namespace hoardex
