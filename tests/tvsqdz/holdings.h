#pragma once

#include <ostream>

// What the process holds that a manager or a registration may take: threads, handles, descriptors, and named objects of
// the machine (neither of these where they cannot be seen from outside).
struct Holdings {
    long threads = 0;
    long handles = 0;
    long descriptors = 0;
    long objects = 0;
    bool IsWithin(const Holdings& other) const {
        return threads <= other.threads && handles <= other.handles && descriptors <= other.descriptors &&
               objects <= other.objects;
    }
};
inline std::ostream& operator<<(std::ostream& out, const Holdings& held) {
    return out << held.threads << " threads, " << held.handles << " handles, " << held.descriptors << " descriptors, "
               << held.objects << " objects";
}

Holdings HeldNow(); // a file for each system
