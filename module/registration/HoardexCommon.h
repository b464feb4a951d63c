// Which Windows the module runs on.
#pragma once

// Classifies the running Windows once and keeps the flags; until it has succeeded both are false.
void DetectOSVersion();

// Major version 6 or later on a workstation, or on a server.
bool IsVistaOrLater();
bool IsServer2008OrLater();
