// mutate_stores --stores N --seed S [--from FIRST] [--keep FOLDER] STORE…
//
// Damages stores in N ways, the same for the same seed, and reads each: nothing but vault::Error may come out, two
// seconds of processor time must do, and every message whose bytes are all still there must read as before. Built with
// sanitizers it looks for memory errors; built without, it also limits memory: 256 MB of address space, and the peak of
// resident memory is measured for every store.
//
// Exit status: 0 all well, 1 findings (their stores are kept), 2 usage.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "fuzz/footprint.h"
#include "fuzz/mutation.h"
#include "tests/support/store_walk.h"
#include "vault/store.h"

namespace {

namespace fs = std::filesystem;

#if defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

constexpr std::uint64_t kBatch = 250;  // stores that one process reads
constexpr int kProcessorSeconds = 2;
constexpr rlim_t kMemory = 256 << 20;
constexpr unsigned kMostFindings = 20;

struct Options {
  std::uint64_t stores = 1500, seed = 1, from = 0;
  fs::path keep = ".";
  std::vector<fs::path> files;
};

// What the reading processes tell the first one, in memory that all share.
struct Tally {
  std::uint64_t current, read, opened, intact, damaged;
  std::uint64_t worst_microseconds, slowest, worst_kilobytes, largest;
  char finding[256];
};

struct Original {
  std::string name;
  test::StoreSurgeon surgeon;
  fuzz::Footprints footprints;
  std::map<vault::Nid, std::string> digests;
};

std::string DigestOrError(const vault::Store& store, vault::Nid nid) {
  try {
    return test::DigestOfMessage(store, nid);
  } catch (const vault::Error& error) {
    return error.what();
  }
}

// Empties the message's own properties behind a right checksum; says whether the comparison then sees a difference.
bool ComparisonCanFail(const Original& original, vault::Nid nid) {
  test::StoreSurgeon damaged = original.surgeon;
  for (const auto& part : damaged.parts()) {
    if (part.is_page || part.offset != original.footprints.messages.at(nid).first_block) continue;
    damaged.Change(part, [](std::span<std::uint8_t> plain) { std::fill(plain.begin(), plain.end(), 0); });
  }
  return DigestOrError(*vault::Store::OpenBytes(damaged.bytes()), nid) != original.digests.at(nid);
}

std::vector<Original> LoadOriginals(const std::vector<fs::path>& files) {
  std::vector<Original> originals;
  unsigned messages = 0;
  for (const fs::path& file : files) {
    Original original{file.filename(), test::StoreSurgeon(file), {}, {}};
    try {
      const auto store = vault::Store::OpenBytes(original.surgeon.bytes());
      original.footprints = fuzz::FindFootprints(original.surgeon);
      for (const auto& [nid, footprint] : original.footprints.messages) {
        original.digests[nid] = DigestOrError(*store, nid);
        if (!ComparisonCanFail(original, nid)) throw std::runtime_error("lost properties of a message go unnoticed");
      }
    } catch (const vault::Error&) {
      original.footprints = {};  // one that is refused may become readable, but never crash
    }
    messages += original.digests.size();
    originals.push_back(std::move(original));
  }
  if (messages == 0) throw std::runtime_error("the stores have no messages to compare");
  std::printf("%zu stores with %u messages; the loss of any one message's properties is noticed\n", originals.size(),
              messages);
  return originals;
}

struct Case {
  const Original* original;
  fuzz::Mutated mutated;
};

Case MakeCase(const std::vector<Original>& originals, std::uint64_t seed, std::uint64_t number) {
  std::seed_seq sequence{seed, number};
  std::mt19937_64 random(sequence);
  const Original& original = originals[random() % originals.size()];
  const Original& other = originals[random() % originals.size()];
  return {&original, fuzz::Mutate(original.surgeon, other.surgeon, random)};
}

[[noreturn]] void Report(Tally& tally, const std::string& what) {
  std::snprintf(tally.finding, sizeof tally.finding, "%s", what.c_str());
  std::_Exit(3);
}

// Everything intact must read as before, whatever else is damaged.
void CompareIntact(const Case& c, const vault::Store& store, Tally& tally) {
  std::map<vault::Nid, bool> listed;
  for (auto cursor = store.Nodes(); cursor.Next();) {
    if (!cursor.error()) listed[cursor.node().nid] = true;
  }
  const auto& good = c.original->surgeon.bytes();
  for (const auto& [nid, digest] : c.original->digests) {
    if (!c.original->footprints.messages.at(nid).IsIntact(good, c.mutated.bytes)) {
      ++tally.damaged;
      continue;
    }
    ++tally.intact;
    char name[32];
    std::snprintf(name, sizeof name, "message 0x%X", nid);
    if (DigestOrError(store, nid) != digest) Report(tally, std::string(name) + " is intact but reads differently");
    if (c.mutated.shows && !listed.count(nid)) Report(tally, std::string(name) + " is intact but not listed");
  }
}

void ReadCase(const Case& c, Tally& tally) {
  std::shared_ptr<const vault::Store> store;
  try {
    store = vault::Store::OpenBytes(c.mutated.bytes);
  } catch (const vault::Error& error) {
    if (!c.original->digests.empty() &&
        c.original->footprints.store.IsIntact(c.original->surgeon.bytes(), c.mutated.bytes)) {
      Report(tally, std::string("the store object is intact but refused: ") + error.what());
    }
    return;
  }
  ++tally.opened;
  test::WalkStore(*store);
  CompareIntact(c, *store, tally);
}

std::uint64_t ProcessorMicroseconds() {
  timespec now;
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

void ResetPeak() {
  const int file = ::open("/proc/self/clear_refs", O_WRONLY | O_CLOEXEC);
  if (file < 0) return;
  [[maybe_unused]] const auto written = ::write(file, "5", 1);
  ::close(file);
}

std::uint64_t PeakKilobytes() {
  std::ifstream status("/proc/self/status");
  std::string word;
  std::uint64_t kilobytes = 0;
  while (status >> word) {
    if (word == "VmHWM:") status >> kilobytes;
  }
  return kilobytes;
}

void ReadBatch(const std::vector<Original>& originals, const Options& options, std::uint64_t end, Tally& tally) {
  if (!kSanitized) {
    const rlimit limit{kMemory, kMemory};
    ::setrlimit(RLIMIT_AS, &limit);
  }
  const rlimit no_core{0, 0};
  ::setrlimit(RLIMIT_CORE, &no_core);
  for (; tally.current < end; ++tally.current) {
    const Case c = MakeCase(originals, options.seed, tally.current);
    ResetPeak();
    // The timer's signal ends the process: a hang has no other end.
    const itimerval limit{{0, 0}, {kProcessorSeconds, 0}};
    ::setitimer(ITIMER_PROF, &limit, nullptr);
    const std::uint64_t begin = ProcessorMicroseconds();
    try {
      ReadCase(c, tally);
    } catch (const std::exception& error) {
      Report(tally, std::string("another exception than vault::Error: ") + error.what());
    }
    const std::uint64_t spent = ProcessorMicroseconds() - begin;
    if (spent > tally.worst_microseconds) tally.worst_microseconds = spent, tally.slowest = tally.current;
    if (const auto peak = kSanitized ? 0 : PeakKilobytes(); peak > tally.worst_kilobytes) {
      tally.worst_kilobytes = peak, tally.largest = tally.current;
    }
    ++tally.read;
  }
}

// Keeps the store of a finding and says what it is.
void Keep(const std::vector<Original>& originals, const Options& options, const Tally& tally, int status) {
  std::string what = tally.finding;
  if (WIFSIGNALED(status)) {
    what = WTERMSIG(status) == SIGPROF ? "no end after two seconds of processor time" : ::strsignal(WTERMSIG(status));
  } else if (what.empty()) {
    what = "exit status " + std::to_string(WEXITSTATUS(status));
  }
  const Case c = MakeCase(originals, options.seed, tally.current);
  const fs::path file = options.keep / ("store-" + std::to_string(options.seed) + "-" + std::to_string(tally.current));
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(c.mutated.bytes.data()),
             static_cast<std::streamsize>(c.mutated.bytes.size()));
  std::printf("FINDING %s: %s (%s, %s)\n", file.c_str(), what.c_str(), c.original->name.c_str(), c.mutated.kind);
}

int Run(const Options& options) {
  const auto originals = LoadOriginals(options.files);
  fs::create_directories(options.keep);
  std::fflush(stdout);
  auto& tally =
      *static_cast<Tally*>(::mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  tally.current = options.from;
  const std::uint64_t end = options.from + options.stores;
  unsigned findings = 0;
  while (tally.current < end && findings < kMostFindings) {
    const pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("cannot start a process");
    if (child == 0) {
      ReadBatch(originals, options, std::min(end, tally.current + kBatch), tally);
      std::_Exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (status == 0) continue;
    ++findings;
    Keep(originals, options, tally, status);
    std::fflush(stdout);
    tally.finding[0] = 0;
    ++tally.current;
  }
  std::printf("%llu mutated stores read, %llu opened; messages intact %llu, damaged %llu; findings %u\n",
              static_cast<unsigned long long>(tally.read), static_cast<unsigned long long>(tally.opened),
              static_cast<unsigned long long>(tally.intact), static_cast<unsigned long long>(tally.damaged), findings);
  std::printf("slowest: number %llu, %.3f s of processor time\n", static_cast<unsigned long long>(tally.slowest),
              static_cast<double>(tally.worst_microseconds) / 1e6);
  if (!kSanitized) {
    std::printf("largest: number %llu, %.1f MB resident (%.0f MB of address space allowed)\n",
                static_cast<unsigned long long>(tally.largest), static_cast<double>(tally.worst_kilobytes) / 1024,
                static_cast<double>(kMemory) / (1 << 20));
  }
  if (tally.read > 100 && (tally.intact == 0 || tally.damaged == 0)) {
    std::puts("the damage spared everything or nothing: this proves nothing");
    return 1;
  }
  return findings ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const char* const value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (!word.starts_with("--")) {
      options.files.push_back(word);
      continue;
    }
    if (word == "--stores" && value) {
      options.stores = std::strtoull(value, nullptr, 10);
    } else if (word == "--seed" && value) {
      options.seed = std::strtoull(value, nullptr, 10);
    } else if (word == "--from" && value) {
      options.from = std::strtoull(value, nullptr, 10);
    } else if (word == "--keep" && value) {
      options.keep = value;
    } else {
      options.files.clear();
      break;
    }
    ++i;
  }
  if (options.files.empty()) {
    std::fputs("usage: mutate_stores [--stores N] [--seed S] [--from FIRST] [--keep FOLDER] STORE...\n", stderr);
    return 2;
  }
  try {
    return Run(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "mutate_stores: %s\n", error.what());
    return 1;
  }
}
