// The module's temporary folder, "zkoffline3x" in the user's roaming application-data folder. Copies of attachments lie
// there while their accessor lives.
#pragma once

#include <string>

// Path without a closing backslash, empty when the roaming folder cannot be had. The folder itself may not exist.
std::wstring AppDataFolder();

// Takes links (junctions, symbolic links) out of the folder, however deep, without touching what they lead to; also
// when the folder is one itself. False when one stays that this system cannot take out: then what lies beside it is
// deleted here, file by file, and nothing may be let loose on the whole folder.
bool DetachLinks(const std::wstring& folder);
