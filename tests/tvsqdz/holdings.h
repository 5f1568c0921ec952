#pragma once

#include <ostream>

// What the process holds that a registration may take: threads, handles (descriptors where the layer answers), and
// named objects of the machine (none where they cannot be seen from outside).
struct Holdings {
    long threads = 0;
    long handles = 0;
    long objects = 0;
    bool IsWithin(const Holdings& other) const {
        return threads <= other.threads && handles <= other.handles && objects <= other.objects;
    }
};
inline std::ostream& operator<<(std::ostream& out, const Holdings& held) {
    return out << held.threads << " threads, " << held.handles << " handles, " << held.objects << " objects";
}

Holdings HeldNow(); // a file for each system
