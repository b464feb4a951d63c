// The system's index as the module's code in this process meets it: class objects of the calling apartment, which come
// before registered ones. Every call is noted with its arguments, and any can be made to fail.
//
// Methods sit where the interface's binary layout has them, by number, whatever the module's own declarations say.
#pragma once

#include <windows.h>

#include <objbase.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

class FakeIndex {
 public:
  // On a thread that has initialised COM, and that destroys it.
  FakeIndex();
  ~FakeIndex();
  FakeIndex(const FakeIndex&) = delete;
  FakeIndex& operator=(const FakeIndex&) = delete;

  std::vector<std::string> calls;         // "ISearchManager::GetCatalog(SystemIndex)"
  std::map<std::string, HRESULT> faults;  // by "ISearchManager::GetCatalog"; the method does nothing else
  std::vector<std::wstring> roots;        // as EnumerateRoots shows them, at once
  HRESULT completion = S_OK;              // what OnItemsChanged writes for a change

  static long LiveObjects();

 private:
  friend class FakeObject;
  DWORD manager_ = 0, root_ = 0;
};
