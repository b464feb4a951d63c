// The scheme's search roots in the system's index. All of it calls COM, on a thread that has initialised it.
#pragma once

#include "platform/searchmanager.h"

// The contexts in which the index's classes are created: in this process, in another, on another machine.
inline constexpr DWORD kIndexContext = CLSCTX_INPROC_SERVER | CLSCTX_LOCAL_SERVER | CLSCTX_REMOTE_SERVER;
inline constexpr wchar_t kIndexCatalog[] = L"SystemIndex";

// Adds the current user's search root and scope unless the root is there, or removes the root. Returns the result of
// the last step taken: S_FALSE when there was no root to remove.
HRESULT CreateDeleteRegSearchRootAndDefaultScope(bool create);

// Removes the scheme's search roots of all users. The first step that fails ends it.
HRESULT RemoveAllSearchRoots();
