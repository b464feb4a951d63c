// What a person who looks after this machine would want to know of it: facts, without judging them. Nothing is changed,
// except where `clear` asks for it. Steps that load what is registered run in processes of their own, so that a library
// that crashes, hangs or is none becomes a fact too.
#pragma once

#include <string>
#include <vector>

namespace host {

// Runs `HoardexHost examine` with the words after it and prints one JSON object:
//   examine [--clear]               all facts; --clear deletes leftover profiles and temporary copies
//   examine class|mail|index        one of the steps that run in a process of their own
// Exit codes: 0, or 2 for wrong words.
int RunExamination(std::vector<std::string> words);

}  // namespace host
