// Makes the registry, token and type-library calls of the module's code in the test program fail, one at a time.
#pragma once

#include <windows.h>

#include <oleauto.h>
#include <sddl.h>
#include <shlwapi.h>

#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "tests/support/import_hook.h"

class SystemFaults {
 public:
  SystemFaults() = default;

  // From now on the call number `nth` (from 1, of those whose name begins with `name`) fails with `code`, and counting
  // starts anew. Calls before Arm and after Disarm are not seen.
  void Arm(int nth, DWORD code, std::string name = {}) {
    left_ = nth;
    code_ = code;
    name_ = std::move(name);
    calls_.clear();
    failed_.clear();
    armed_ = true;
  }
  void Disarm() { armed_ = false; }

  const std::string& failed() const { return failed_; }  // the function that was made to fail; empty when none was
  const std::vector<std::string>& calls() const { return calls_; }

 private:
  bool Fails(const char* function) {
    if (!armed_) return false;
    calls_.emplace_back(function);
    if (calls_.back().rfind(name_, 0) != 0 || --left_ != 0) return false;
    failed_ = function;
    return true;
  }

  template <import_hook::Name kFunction, class Function>
  struct Faulty;
  template <import_hook::Name kFunction, class Result, class... Arguments>
  struct Faulty<kFunction, Result(Arguments...)> {
    explicit Faulty(SystemFaults& faults)
        : hook([&faults](auto real, Arguments... arguments) -> Result {
            if (!faults.Fails(kFunction.text)) return real(arguments...);
            constexpr bool hresult = std::string_view(kFunction.text) == "LoadTypeLibEx";
            if constexpr (hresult) return HRESULT_FROM_WIN32(faults.code_);
            if constexpr (std::is_same_v<Result, LONG> || std::is_same_v<Result, DWORD>)
              return static_cast<Result>(faults.code_);
            SetLastError(faults.code_);
            return Result();
          }) {}
    import_hook::Hook<kFunction, Result(Arguments...)> hook;
  };
#define ZK_FAULTY(function)                           \
  Faulty<#function, decltype(function)> function##_ { \
    *this                                             \
  }
  ZK_FAULTY(RegOpenKeyExW);
  ZK_FAULTY(RegCreateKeyExW);
  ZK_FAULTY(RegQueryValueExW);
  ZK_FAULTY(RegQueryInfoKeyW);
  ZK_FAULTY(RegEnumKeyExW);
  ZK_FAULTY(RegEnumValueW);
  ZK_FAULTY(RegSetValueExW);
  ZK_FAULTY(RegDeleteValueW);
  ZK_FAULTY(RegDeleteKeyW);
  ZK_FAULTY(SHDeleteKeyW);
  ZK_FAULTY(OpenProcessToken);
  ZK_FAULTY(GetTokenInformation);
  ZK_FAULTY(ConvertSidToStringSidW);
  ZK_FAULTY(GetVersionExW);
  ZK_FAULTY(LoadTypeLibEx);
  ZK_FAULTY(CompareStringW);
#undef ZK_FAULTY

  bool armed_ = false;
  int left_ = 0;
  DWORD code_ = 0;
  std::string name_, failed_;
  std::vector<std::string> calls_;
};
