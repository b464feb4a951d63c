// What the module keeps in the registry besides its script: the names of its item types, and on systems before Windows
// Vista its entry in the locations of Windows Desktop Search.
#pragma once

// One pass over the registry: the item types, the group policy, and on the older search the location. Reads, and writes
// only what differs. Made on every attach, under the loader lock, and never calls COM. Nothing is thrown.
void UpdateRegistryOnAttach();

// The part of the update that needs COM, for the first object of the class that a process asks for: on the newer search
// the current user's root, unless it is there. Later calls return at once. COM is entered for the call where the thread
// has none. Failures are in the log only, and nothing is thrown.
void AddUserRootOnce();

// The exports of the same name, for a thread that has initialised COM.
void UpdateWDSRegKey();
void DeleteWDSRegKey();
