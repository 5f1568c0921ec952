// What the tests of the layer do below it: other users, files and locks in its directories, signals. posix_kit.cpp has
// it for Linux.
#pragma once

#include <string>
#include <vector>

// From here on this process is a user without rights. Only root can do it.
bool BecomeNobody();
void SetUmask(unsigned mask);

std::string ReadWholeFile(const std::string& path);
// Replaces the file, as a restored backup would: those who have it open see that it is another.
void ReplaceFile(const std::string& path, const std::string& bytes, unsigned mode = 0644);

// Makes something else than a file of its own in its place.
enum class Plant { kLink, kHardLink, kPipe, kDirectory };
bool PlantInPlace(const std::string& path, Plant plant, const std::string& target);

// Locks a file until the process ends, as a writer that does not come to an end, or as any reader can.
bool LockWholeFile(const std::string& path, bool asReader = false);

// Names of the files that hold named objects, sorted; where they are.
std::vector<std::string> ObjectFiles();
std::string ObjectPath(const std::string& name);
// Until the process ends: holds a file of that folder, or the folder itself ("."), as a process holds an object that it
// has, or while it opens one; keeps a fork child that does nothing; sends this thread a signal without SA_RESTART,
// whose handler does nothing, every 100 us.
void HoldObject(const std::string& name);
void StartIdleForkChild();
void StartSignalStorm();

// The thread of this process is asleep in the kernel.
bool IsAsleep(unsigned threadId);
void BlockAllSignals(); // of this thread
[[noreturn]] void CrashHere();
void RaiseTermination();
void LeakADescriptor(); // one that programs started from here would inherit
// "descriptors: 4" and what a process should not have inherited.
std::string ProcessState();
unsigned OpenDescriptors();
// How many children of this process have ended and were not waited for.
unsigned Zombies();
