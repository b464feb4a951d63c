// Which Windows the module runs on, and the names of the item types.
#pragma once

// Classifies the running Windows once, with its lines in the log, and keeps the flags; until it has succeeded both are
// false. Returns whether it has. Any thread.
bool DetectOSVersion();

// Major version 6 or later on a workstation, or on a server.
bool IsVistaOrLater();
bool IsServer2008OrLater();

// Sees to the display names of the item types under HKEY_CLASSES_ROOT, writing those that are not there, or takes them
// away again, each with its key if nothing else is in it. What the registry refuses is logged.
void UpdateTYItemTypeInReg();
void RemoveTYItemTypeFromReg();
