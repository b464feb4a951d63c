// Everything the module does with a vault, on a small store and in this process: the module's code is part of the test
// program, over the provider's checked build. A driver runs it again and again with one thing going wrong.
#pragma once

#include <windows.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "platform/searchapi.h"
#include "tests/support/provider_faults.h"
#include "tests/support/scratch_registry.h"

namespace faults {

// Set while the module's code runs, on the one thread that runs it.
inline bool in_module = false;

// Marks a stretch of the test's code, or of what the module calls back, as the module's or not.
class Inside {
 public:
  explicit Inside(bool inside) : before_(in_module) { in_module = inside; }
  ~Inside() { in_module = before_; }
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;

 private:
  bool before_;
};

enum class Operation { kSession, kTop, kFolder, kMessage, kAttachment, kClean };

struct Step {
  Operation operation;
  std::wstring url;
};

struct StepResult {
  HRESULT result = S_FALSE;  // S_FALSE: not reached, since there was no session
  std::wstring path;
  std::vector<std::wstring> names;
  long last_call = 0;  // calls entered when it was done
  bool operator==(const StepResult& other) const {
    return result == other.result && path == other.path && names == other.names;
  }
};

// A protocol object with a site that knows the filter of one file type. Shut down when it goes.
class Host {
 public:
  Host();
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // One item as an indexer reads it, to its end. First comes what the accessor answered, then a line for each chunk,
  // which begins with the property's key and the chunk's id. `links` gets the links that were given.
  std::vector<std::wstring> Read(const std::wstring& url, std::vector<std::wstring>* links = nullptr);
  // False when there was no memory for it.
  explicit operator bool() const { return protocol_ != nullptr; }

 private:
  ISearchProtocol* protocol_ = nullptr;
};

// The process's registry, folders, log, store and MAPI. Made once.
class Scene {
 public:
  static Scene& Get();

  // The session, every container, message and attachment through CMapiForWDS, and the end of all sessions.
  std::vector<StepResult> RunSteps();
  // Every item as an indexer reads it; what it was given, line by line. An exception that leaves an interface is
  // thrown.
  std::vector<std::wstring> Crawl();

  const std::vector<Step>& steps() const { return steps_; }
  // Of the store; others may be put beside it.
  const std::filesystem::path& store() const { return store_; }
  static std::wstring UrlOf(const std::filesystem::path& store);

  // A profile that a process left behind is there before each run, and must go.
  void LeaveStaleProfile();
  // What the log got since the last time: the lines' texts.
  std::vector<std::string> NewLogLines();
  // Files that copies of attachments left.
  size_t TemporaryFiles() const;
  // Whether a thread that logs now comes back.
  static bool LogIsFree();

 private:
  Scene();
  ~Scene();
  void OpenLog();
  void WriteStore();

  ScratchRegistry registry_;
  std::filesystem::path folder_, store_, log_;
  std::streamoff log_read_ = 0;
  std::wstring vault_url_;
  std::vector<Step> steps_;
};

// One thing that shall go wrong, and what must hold whatever it is: nothing stays alive but what a set-up that failed
// keeps on purpose, no profile and no temporary file is left, and the next run is as good as any.
class Invariants {
 public:
  struct Left {
    long sessions = 0, service_admins = 0, buffers = 0, initializations = 0;
  };
  Invariants() : before_(ProviderFaults::Count()) {}
  // After a run: all of `left` is still there, and as many profiles.
  void ExpectLeft(const Left& left, long profiles) const { Check(left, profiles, true); }
  // No more than that is.
  void ExpectAtMost(const Left& left, long profiles) const { Check(left, profiles, false); }

 private:
  void Check(const Left& left, long profiles, bool exact) const;
  ProviderFaults::Alive before_;
};
inline constexpr Invariants::Left kAnyPartOfASession = {1, 1, 1, 1};

}  // namespace faults
