#pragma once

#include <string>
#include <vector>

// A supervisor's socket, as sd_notify(3) writes to it.
class NotifySocket {
public:
    explicit NotifySocket(const std::string& path);
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;
    // What has come so far.
    std::vector<std::string> Messages();

private:
    int m_socket;
};
