// Chains of calls of which each is logged with its result and the first that fails ends the chain.
#pragma once

#include <windows.h>

#include <functional>
#include <initializer_list>
#include <string>

#include "module/core/SCLog.h"

namespace steps {

struct Step {
  std::wstring text;  // what the line says before the result, after the operation's name
  std::function<HRESULT()> run;
};

// Runs the steps in order and logs each as "<operation><text> [0x%08lX]". Returns the last result.
inline HRESULT Run(const wchar_t* source, int line, const wchar_t* operation, std::initializer_list<Step> chain) {
  HRESULT hr = S_OK;
  for (const Step& step : chain) {
    hr = step.run();
    logging::Write(source, line, SCLog::kOrdinary, L"%s%s [0x%08lX]", operation, step.text.c_str(), hr);
    if (FAILED(hr)) break;
  }
  return hr;
}

// A success that brought no object is none.
template <class Pointer>
HRESULT Filled(HRESULT hr, const Pointer& object) {
  return SUCCEEDED(hr) && !object ? E_UNEXPECTED : hr;
}

}  // namespace steps

#define ZK_STEPS(operation, ...) ::steps::Run(kLogSource, __LINE__, operation, __VA_ARGS__)
