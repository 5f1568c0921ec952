// No state.
#include "model/source.h"

namespace views {

const char* NameOf(ChangeKind kind) {
    switch (kind) {
    case ChangeKind::Value:
        return "value";
    case ChangeKind::PrinterAdded:
        return "added";
    case ChangeKind::PrinterRemoved:
        return "removed";
    case ChangeKind::Stale:
        return "stale";
    case ChangeKind::Fresh:
        return "fresh";
    case ChangeKind::Gap:
        return "gap";
    case ChangeKind::Connected:
        return "connected";
    case ChangeKind::Disconnected:
        return "disconnected";
    }
    return "";
}

} // namespace views
