// mkvault --demo FILE: writes the demonstration store.
//
// Exit status: 0 written, 1 failed, 2 usage.
#include <cstdio>
#include <cstring>

#include "tools/mkvault/demo.h"
#include "vault/error.h"

int main(int argc, char** argv) {
  if (argc != 3 || std::strcmp(argv[1], "--demo") != 0) {
    std::fputs("usage: mkvault --demo FILE\n", stderr);
    return 2;
  }
  try {
    vault::StoreBuilder store("Archive of Jane Miller");
    mkvault::AddMail(store);
    mkvault::AddItems(store);
    store.Write(argv[2]);
  } catch (const vault::Error& error) {
    std::fprintf(stderr, "mkvault: %s\n", error.what());
    return 1;
  }
  return 0;
}
