// Files that the shell opens or prints in an item's stead.
#pragma once

#include <windows.h>

#include <mapidefs.h>

#include <string>

// Writes the item's copy into the module's temporary folder and tells its path: a message as a uniquely named .msg
// file, an attachment's content under its safe name. Both carry the mark of the web, since mail came from outside.
HRESULT CopyMessageForShell(LPMESSAGE message, std::wstring& path);
HRESULT CopyAttachmentForShell(const std::wstring& attachment_url, std::wstring& path);

// The content of an attachment, however it is stored, in the module's temporary folder; nobody deletes it but the sweep
// of the folder.
HRESULT CopyAttachment(const std::wstring& attachment_url, std::wstring& path);

// Whether Windows would run the file, or what it says, rather than show it.
bool IsExecutableType(const std::wstring& path);
