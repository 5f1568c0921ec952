// What of the kit Windows has a form of; a test that asks for the rest is skipped there.
#include "base/timings.h"
#include "not_here.h"
#include "posix_kit.h"

#include <windows.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

oriel::Timings oriel::g_timings; // which nobody looks at here

bool BecomeNobody() {
    NotHere("a way to become another user");
}

void SetUmask(unsigned) {
    NotHere("file modes");
}

std::string ReadWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void ReplaceFile(const std::string&, const std::string&, unsigned) {
    NotHere("the layer's files");
}

bool PlantInPlace(const std::string&, Plant, const std::string&) {
    NotHere("the layer's files");
}

bool LockWholeFile(const std::string&, bool) {
    NotHere("the layer's files");
}

std::string ObjectPath(const std::string&) {
    NotHere("files that are kernel objects");
}

std::vector<std::string> ObjectFiles() {
    NotHere("files that are kernel objects");
}

void HoldObject(const std::string&) {
    NotHere("files that are kernel objects");
}

void StartIdleForkChild() {
    NotHere("fork children");
}

void StartSignalStorm() {
    NotHere("signals");
}

bool IsAsleep(unsigned) {
    Sleep(50); // nothing tells; long enough for what is about to fall asleep
    return true;
}

void BlockAllSignals() {} // there are none

void CrashHere() {
    NotHere("signals");
}

void RaiseTermination() {
    NotHere("signals");
}

void LeakADescriptor() {
    NotHere("descriptors");
}

std::string ProcessState() {
    NotHere("descriptors");
}

unsigned OpenDescriptors() {
    NotHere("descriptors");
}

unsigned Zombies() {
    NotHere("processes that have to be waited for");
}
