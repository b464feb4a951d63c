// The memory that a large store costs its writer. This program counts every byte that is allocated: unlike the size of
// the process, that number means the same under a sanitizer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "tests/support/store_walk.h"
#include "vault/store.h"
#include "vault/store_stream.h"

namespace {

std::atomic<std::size_t> live_bytes{0}, peak_bytes{0};

}  // namespace

void* operator new(std::size_t size) {
  void* const at = std::malloc(size ? size : 1);
  if (!at) throw std::bad_alloc();
  const std::size_t live = live_bytes += ::malloc_usable_size(at);
  if (live > peak_bytes) peak_bytes = live;
  return at;
}
void operator delete(void* at) noexcept {
  live_bytes -= ::malloc_usable_size(at);
  std::free(at);
}
void operator delete(void* at, std::size_t) noexcept {
  operator delete(at);
}

namespace {

namespace fs = std::filesystem;
using vault::Source;

constexpr unsigned kMessages = 20'000, kPerFolder = 10'000;
constexpr std::uint64_t kLarge = 130'000'001;  // bytes of the attachment
// Two open folders of that size, the sorter of nodes, one area, and the list of the attachment's blocks.
constexpr std::size_t kBound = 4'000'000;

// Eight bytes that tell their place.
std::uint64_t Word(std::uint64_t place) {
  return (place + 1) * 0x9E3779B97F4A7C15;
}

void FillFrom(std::uint64_t offset, std::span<std::uint8_t> to) {
  for (std::size_t i = 0; i < to.size();) {
    const std::uint64_t word = Word((offset + i) / 8);
    const std::size_t skip = (offset + i) % 8, n = std::min<std::size_t>(8 - skip, to.size() - i);
    std::memcpy(to.data() + i, reinterpret_cast<const char*>(&word) + skip, n);
    i += n;
  }
}

Source Large() {
  return {kLarge, []() -> Source::Reader {
            return [at = std::uint64_t{0}](std::span<std::uint8_t> to) mutable {
              // In odd pieces, as a network gives them.
              const auto n = static_cast<std::size_t>(std::min<std::uint64_t>({to.size(), 4001, kLarge - at}));
              FillFrom(at, to.first(n));
              at += n;
              return n;
            };
          }};
}

void WriteLargeStore(const fs::path& path) {
  vault::StoreStream stream(path, "Large");
  vault::FolderStream* folder = nullptr;
  for (unsigned i = 0; i < kMessages; ++i) {
    if (i % kPerFolder == 0) folder = &stream.top().OpenFolder("Folder " + std::to_string(i / kPerFolder));
    vault::MessageBuilder message("IPM.Note");
    message.Subject("Message " + std::to_string(i)).From("Ann", "ann@example.com").To("Bob", "bob@example.org");
    message.Body(std::string(400 + i % 100, 'x'));
    if (i == kMessages / 2) message.AttachFile("large.bin", Large());
    folder->AddMessage(message);
  }
  stream.Finish();
}

TEST(StreamMemory, DoesNotGrowWithTheStore) {
  const fs::path folder = fs::temp_directory_path() / ("vault-memory-" + std::to_string(::getpid()));
  fs::create_directories(folder);
  const fs::path path = folder / "store.pst";
  vault::StoreBuilder("Small").Write(path);  // what is made once and kept
  const std::size_t before = live_bytes;
  peak_bytes = before;
  WriteLargeStore(path);
  const std::size_t kept = live_bytes - before, peak = peak_bytes - before;
  EXPECT_EQ(kept, 0u);
  EXPECT_LT(peak, kBound);

  const auto store = vault::Store::Open(path);
  EXPECT_GT(store->file_size(), kLarge + kMessages * 1000);
  const vault::Table folders = store->OpenFolder(store->subtree()).Hierarchy();
  ASSERT_EQ(folders.row_count(), kMessages / kPerFolder + 1);
  for (unsigned i = 0; i < kMessages; i += 997) {
    SCOPED_TRACE(i);
    const vault::Table rows = store->OpenFolder(folders.At(i / kPerFolder).id()).Contents();
    ASSERT_EQ(rows.row_count(), kPerFolder);
    const auto row = rows.At(i % kPerFolder);
    const auto message = store->OpenMessage(row.id());
    EXPECT_EQ(vault::Utf8FromUtf16(message.subject()), "Message " + std::to_string(i));
    EXPECT_EQ(row.Find(vault::prop::kSubject)->AsText(), message.subject());
    EXPECT_EQ(message.properties().Text(vault::prop::kBody)->size(), 400 + i % 100);
    ASSERT_TRUE(rows.FindRow(row.id()));
  }
  const vault::Table second = store->OpenFolder(folders.At(1).id()).Contents();
  const auto message = store->OpenMessage(second.At(0).id());
  auto data = message.OpenAttachment(message.AttachmentNids().at(0)).Data();
  ASSERT_EQ(data->size(), kLarge);
  std::vector<std::uint8_t> wanted;
  bool equal = true;
  for (std::uint64_t at = 0; equal && at < kLarge;) {
    const auto piece = data->Piece(at);
    wanted.resize(piece.size());
    FillFrom(at, wanted);
    equal = std::equal(piece.begin(), piece.end(), wanted.begin(), wanted.end());
    at += piece.size();
  }
  EXPECT_TRUE(equal);
  if (std::system("command -v lspst >/dev/null") == 0) {
    EXPECT_EQ(std::system(("test $(lspst '" + path.string() + "' | grep -c 'Subject: Message ') -eq " +
                           std::to_string(kMessages))
                              .c_str()),
              0);
  }
  fs::remove_all(folder);
}

}  // namespace
