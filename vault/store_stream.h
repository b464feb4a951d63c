// Writes a Unicode store ([MS-PST]) as it goes, for stores of any size: importers, generators, benchmarks.
//
//   vault::StoreStream store("archive.db", "Archive 2024");
//   auto& inbox = store.top().OpenFolder("Inbox");
//   for (...) {
//     vault::MessageBuilder message("IPM.Note");
//     message.Subject("Invoice 17").To("Bob", "bob@example.org").Body("Paid.");
//     message.AttachFile("scan.tif", vault::Source::File("/scans/17.tif"));
//     inbox.AddMessage(message);
//   }
//   inbox.Close();
//   store.Finish();
//
// Memory: independent of the number of messages in closed folders. Each open folder takes up to 50 KB and 10 bytes for
// each of its messages; a message being written, 6 bytes for each KB of its large values; the rest about 3 MB.
// Files: everything goes to a file of another name beside the store (a second one keeps the sorted runs of a large node
// tree); Finish writes the header last, brings the file to the disk and gives it its name, which replaces a store of
// that name in one step. Without Finish nothing stays behind.
// Limits of the format: 4 GB - 1 a value; 2^27 messages, folders included; about two million messages of usual size in
// one folder, whose table keeps subject, sender and so on in a heap of 512 MB; 32 messages within one another; 32,767
// names of properties.
// Errors: what the format cannot hold is Error(kUnwritable), a source or the store's own file that fails
// Error(kCannotOpen), or whatever a source throws. After an error in AddMessage or AddHidden the stream goes on as if
// the call had not been made; only the room that was written stays unused, and new names stay known. After any other
// error, or when the store's own file cannot be written, every further call throws.
// Threads: one at a time. The same calls give the same bytes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>

#include "vault/types.h"
#include "vault/writer.h"

namespace vault {

class FolderStream;

class StoreStream : public WithProperties<StoreStream> {
 public:
  // Begins a store that Finish will name `path`. `name` is its display name; `uid` the 16 bytes in every entry id,
  // made from the name when not given. Throws Error(kCannotOpen).
  StoreStream(const std::filesystem::path& path, std::string_view name, Encoding encoding = Encoding::kPermute,
              const std::optional<Guid>& uid = std::nullopt);
  // Gives up what is not finished.
  ~StoreStream();
  StoreStream(const StoreStream&) = delete;
  StoreStream& operator=(const StoreStream&) = delete;

  // The top of the mail subtree, and the "Deleted Items" in it: open from the beginning to Finish. Throw Error
  // afterwards.
  FolderStream& top();
  FolderStream& deleted_items();

  // Closes all folders and completes the store; nothing may be added afterwards. Properties of the store and of its
  // folders may be set until they are written here, or when the folder is closed.
  void Finish();

  // Messages written so far, hidden and embedded ones included.
  std::uint64_t message_count() const;

 private:
  friend class FolderStream;
  struct State;
  std::unique_ptr<State> state_;
};

// A folder that takes messages. Any number may be open, in any relation; messages may be added to them in any order.
// The object belongs to the store; a reference to it ends with Close (of it or of a folder above) or with the store.
class FolderStream : public WithProperties<FolderStream> {
 public:
  ~FolderStream();
  FolderStream(const FolderStream&) = delete;
  FolderStream& operator=(const FolderStream&) = delete;

  Nid nid() const;
  // Messages added, without hidden ones.
  std::uint32_t message_count() const;

  // A sub-folder, open. Sub-folders are listed in the order in which they are closed.
  FolderStream& OpenFolder(std::string_view name, std::string_view container_class = "IPF.Note");
  // Writes the message with everything that hangs on it; the builder is not needed any more. The message's node.
  Nid AddMessage(const MessageBuilder& message);
  // The same for a hidden message of the associated table.
  Nid AddHidden(const MessageBuilder& message);
  // Completes this folder and those that are open below it. top() and deleted_items() themselves stay open.
  void Close();

 private:
  friend class StoreStream;
  struct State;
  explicit FolderStream(std::unique_ptr<State> state);
  FolderStream& OpenFolder(Nid nid, std::string_view name, std::string_view container_class);
  void CloseBelow();
  void End();
  std::unique_ptr<State> state_;
};

}  // namespace vault
