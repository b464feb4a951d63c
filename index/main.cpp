#include "index/commands.h"

int main(int argc, char** argv) {
  return hoardex::Main(argc, argv);
}
