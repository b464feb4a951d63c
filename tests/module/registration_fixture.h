// What the tests of registration and notification share: COM, a fake index and the log of this process, and the walk
// through a chain of calls that fails each of them in turn.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <sddl.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "module/core/HoardexPH.h"
#include "tests/support/fake_index.h"
#include "tests/support/log_lines.h"
#include "tests/support/scratch_registry.h"
#include "tests/support/system_faults.h"

// One call, or one line that needs none. "%U" in its texts stands for the user's root URL, "%R" for the result.
struct ChainStep {
  const char* fault = nullptr;      // the method that is made to fail
  const char* call = nullptr;       // as the fake index notes it
  const char* line = nullptr;       // on success; also on failure unless the next is given
  const char* result = "00000000";  // of success
  const char* failure_lines = nullptr;
};

class RegistrationTest : public testing::Test {
 protected:
  RegistrationTest() {
    module::SetInstance(GetModuleHandleW(nullptr));
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    index_.emplace();
  }
  ~RegistrationTest() override {
    index_.reset();
    EXPECT_EQ(FakeIndex::LiveObjects(), 0) << "an object of the index is still held";
    CoUninitialize();
  }

  FakeIndex& index() { return *index_; }

  static std::string Hex(HRESULT hr) {
    char text[9];
    snprintf(text, sizeof(text), "%08lX", static_cast<unsigned long>(hr));
    return text;
  }
  static std::string Filled(std::string text, const std::string& result) {
    for (const auto& [mark, by] : {std::pair{std::string("%U"), UserRoot()}, {std::string("%R"), result}})
      for (size_t at; (at = text.find(mark)) != std::string::npos;) text.replace(at, 2, by);
    return text;
  }
  // Made from the account's name, not from the process's token.
  static std::string UserRoot() {
    static const std::string root = [] {
      wchar_t name[256], domain[256], *text = nullptr;
      BYTE sid[SECURITY_MAX_SID_SIZE];
      DWORD length = 256, size = sizeof(sid), domain_length = 256;
      SID_NAME_USE use;
      GetUserNameW(name, &length);
      if (!LookupAccountNameW(nullptr, name, sid, &size, domain, &domain_length, &use) ||
          !ConvertSidToStringSidW(sid, &text))
        return std::string("no user");
      const std::wstring wide = text;
      LocalFree(text);
      return "zkoffline3x://{" + std::string(wide.begin(), wide.end()) + "}/default/";
    }();
    return root;
  }
  static std::wstring Wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

  static void AddLines(std::vector<std::string>& lines, const char* text, const std::string& result) {
    if (!text) return;
    std::string rest = Filled(text, result);
    for (size_t end; (end = rest.find('\n')) != std::string::npos; rest.erase(0, end + 1))
      lines.push_back(rest.substr(0, end));
    lines.push_back(rest);
  }

  // Runs `operation` once undisturbed and once for each call with that call failing: lines and calls must be those of
  // the steps up to the failing one, then the lines of `end`, which gets the number of the last step and its result.
  // `prepare` puts the index into its first state.
  using End = std::function<std::vector<std::string>(size_t last, const std::string& result)>;
  void Walk(
      const std::vector<ChainStep>& steps, const std::function<void()>& operation, const End& end,
      const std::function<void()>& prepare = [] {}) {
    constexpr HRESULT kFault = 0x80045A5A;
    for (size_t failing = 0; failing <= steps.size(); ++failing) {
      if (failing < steps.size() && !steps[failing].fault) continue;
      const bool fails = failing < steps.size();
      SCOPED_TRACE(fails ? steps[failing].fault : "undisturbed");
      index().roots.clear();
      prepare();
      index().calls.clear();
      index().faults.clear();
      if (fails) index().faults[steps[failing].fault] = kFault;
      std::vector<std::string> lines, calls;
      const size_t last = fails ? failing : steps.size() - 1;
      for (size_t i = 0; i <= last; ++i) {
        const bool failed = i == failing;
        const std::string result = failed ? Hex(kFault) : steps[i].result;
        AddLines(lines, failed && steps[i].failure_lines ? steps[i].failure_lines : steps[i].line, result);
        if (steps[i].call) calls.push_back(Filled(steps[i].call, result));
      }
      for (const std::string& line : end(last, fails ? Hex(kFault) : steps[last].result)) lines.push_back(line);
      log_.New();
      operation();
      EXPECT_EQ(log_.New(), lines);
      EXPECT_EQ(index().calls, calls);
    }
    index().faults.clear();
  }

  ScratchRegistry registry_;
  LogLines log_;

 private:
  std::optional<FakeIndex> index_;
};
