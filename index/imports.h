// Mail that lies in files (maildir, mbox, .eml) as vaults: each source is converted into a store of hoardex's own, and
// again when it has changed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "index/environment.h"

namespace hoardex {

struct LeftOut {
  std::string file, reason;
};

struct Import {
  std::filesystem::path source, store;
  std::string stamp;    // of the source when it was converted
  std::string written;  // of the store then: one in its place that differs is not the one of these notes
  int64_t messages = 0;
  std::vector<LeftOut> left_out;  // what the source holds and the store does not
  std::string error;              // why there is no store, or why it could not be brought up to date: a sentence
};

class Imports {
 public:
  explicit Imports(const Environment& environment) : environment_(environment) {}

  // Whether this argument is mail, or a folder of stores that holds mail as well.
  static bool IsMail(const std::filesystem::path& argument);
  // Whether this argument is a store or a folder with stores in it.
  static bool IsStores(const std::filesystem::path& argument);

  // Removes what an interrupted conversion left. Call it while holding the HomeLock.
  void Sweep() const;

  // Converts the source unless its store is there and up to date. The source is only read. Never throws for what is
  // wrong with the source: see Import::error. Call it while holding the HomeLock.
  Import Bring(const std::filesystem::path& source);

  // Every source that was converted before, by store, as it was left. Where the notes are damaged, there is an error
  // and no source.
  std::vector<Import> List() const;

  // Forgets a source and deletes its store, when the store is one of ours.
  void Forget(const std::filesystem::path& store);

 private:
  std::filesystem::path folder() const { return environment_.home / "imported"; }
  const Environment& environment_;
};

}  // namespace hoardex
