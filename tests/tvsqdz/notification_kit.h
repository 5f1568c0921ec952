// Registrants: who is told in each of the three forms, and what he was told.
#pragma once

#include "machine.h"

#include <mutex>

// Longer than anything that is told late: the pause of the service after a burst and the first look of a watcher.
inline constexpr int kQuietMs = 300;
inline constexpr UINT kMessage = WM_APP + 7;

// The calls of one callback. Its own work is done before it is counted.
struct Calls {
    std::function<void()> work;
    std::atomic<int> count = 0;
    std::atomic<uint32_t> index = 0xEE;
    std::atomic<TvsManager> manager = 0;
    std::atomic<bool> hadValue = false;
    Bytes Value();           // of the last one
    std::string Variables(); // the names, each followed by ";"

    std::mutex lock; // of the two
    Bytes value;
    std::string variables;
};
// A callback has no parameter of its own: there are four, for as many registrations at a time.
extern Calls g_calls[4];
TvsCallback CallbackOf(int number);

enum class Form { Event, Message, Callback };
inline constexpr Form kForms[] = {Form::Event, Form::Message, Form::Callback};

// One registration of a variable. number: of the callback and of the message.
class Registrant {
public:
    Registrant(Form form, TvsManager manager, const std::string& variable, int number = 0);
    ~Registrant();
    Registrant(const Registrant&) = delete;
    Registrant& operator=(const Registrant&) = delete;

    // Deliveries since the last time, once there is one; 0 when none comes in time.
    int Told(int timeoutMs = 10000);
    int32_t Cancel();

    TvsRegistration handle = 0;

private:
    const Form m_form;
    const TvsManager m_manager;
    const int m_number;
    HANDLE m_event = nullptr; // automatic
    HWND m_window = nullptr;
    int m_seen = 0;
};

// The record of a registration, which stays while it is not cancelled.
struct NotificationRegistration;
const NotificationRegistration* RegistrationAt(TvsRegistration handle);
// The records of the manager's list.
int RegistrationCount(TvsManager manager);
