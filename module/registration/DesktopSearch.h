// What the module keeps in the registry besides its script: the names of its item types, and on systems before Windows
// Vista its entry in the locations of Windows Desktop Search.
#pragma once

// Called on every attach, under the loader lock: brings the registry up to date and never calls COM. After a pass
// that wrote everything, or three that did not, it returns at once.
void UpdateRegistryOnAttach();

// The exports of the same name, for a thread that has initialised COM.
void UpdateWDSRegKey();
void DeleteWDSRegKey();
