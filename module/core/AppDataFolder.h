// The module's temporary folder, "zkoffline3x" in the user's roaming application-data folder. Copies of attachments lie
// there while their accessor lives.
#pragma once

#include <string>

// Path without a closing backslash, empty when the roaming folder cannot be had. The folder itself may not exist.
std::wstring AppDataFolder();
