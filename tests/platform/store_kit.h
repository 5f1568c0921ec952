// What tests of stores do to the files below the layer: other users, locks, damage, plants. Over POSIX, in one file.
#pragma once

#include <string>
#include <vector>

bool IsRoot();
// From here on this process is a user without rights. Only root can do it.
bool BecomeNobody();

// Locks a file as a writer that does not come to an end. Until the process ends.
bool LockWholeFile(const std::string& path);
// The same as any reader can.
bool LockForReading(const std::string& path);

// Makes something else than a file in its place.
enum class Plant { kLink, kPipe, kDirectory };
bool PlantInPlace(const std::string& path, Plant plant, const std::string& target);

// The result of a procedure that runs in a fork child, or -1.
int InForkChild(int (*procedure)());

unsigned FileMode(const std::string& path);
void SetUmask(unsigned mask);

std::string ReadWholeFile(const std::string& path);
// Replaces the file, as a restored backup would: those who have it open see that it is another.
void ReplaceFile(const std::string& path, const std::string& bytes);

// A supervisor's socket, as sd_notify(3) writes to it.
class NotifySocket {
public:
    explicit NotifySocket(const std::string& path);
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    const std::string& Path() const { return m_path; }
    // What has come so far.
    std::vector<std::string> Messages();

private:
    std::string m_path;
    int m_socket;
};
