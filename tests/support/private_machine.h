// A machine of its own for a test: private state and run directories, gone when the process ends.
#pragma once

#include <string>

// The directory that holds both; tests may put scratch files there.
const std::string& PrivateDirectory();

// Where the programs under test, the libraries and the sources are.
std::string ProgramPath(const std::string& name);
std::string LibraryPath(const std::string& name);
std::string SourcePath(const std::string& name);

// Unix path to the form that the layer takes: backslashes.
std::string WindowsPath(const std::string& path);

// One of the layer's settings, for this process and those that it starts from now on; null takes it back. Ends the test
// as skipped where Windows answers, which is what it is.
void UseSetting(const char* name, const char* value);

// For main(), a file for each system: the path of the test program, what it sets up for itself, and the directory of a
// new private machine, which children find in this variable.
inline constexpr const char* kPrivateDirectoryVariable = "ORIEL_TEST_DIRECTORY";
// Where test programs make their private machines instead of in shared memory, on Linux.
inline constexpr const char* kMachinesVariable = "ORIEL_TEST_MACHINES";
std::string OwnProgram();
void PrepareTestProgram();
std::string MakePrivateMachine();
