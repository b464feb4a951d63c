// The files that the stand-in keeps in %ProgramData%\Hoardex\SystemIndex. Shared by all processes of a machine, which a
// named mutex keeps apart. What cannot be had is thrown as Failure with the system's code.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace winindex {

// Held by one process at a time; recursive within a thread. A process that died while it held the lock left either the
// old file or the new one.
class StateLock {
 public:
  StateLock();
  ~StateLock();
  StateLock(const StateLock&) = delete;
  StateLock& operator=(const StateLock&) = delete;

 private:
  HANDLE mutex_;
};

// One file of the state. Needs a StateLock around every sequence of calls that belong together.
class StateFile {
 public:
  explicit StateFile(const wchar_t* name);

  // The whole text; empty when there is no file.
  std::string Read() const;
  // The end of the text, at most so many bytes.
  std::string ReadEnd(size_t bytes) const;
  // Puts a new text in the place of the old one: after a crash the file holds either. Empty text removes the file, and
  // the folders when nothing else is in them.
  void Replace(std::string_view text) const;
  // Adds lines behind the last complete line; what a crash left behind that is cut off. On the disk when it returns.
  void Append(std::string_view lines) const;

 private:
  void MakeFolders() const;
  std::wstring parent_, folder_, path_;
};

}  // namespace winindex
