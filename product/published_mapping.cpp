// Mapping of published sections. No state of its own.
#include "product/published_mapping.h"

#include "product/guards.h"

#include <algorithm>

namespace product {

namespace {

// Null when it cannot be mapped.
const void* MapView(const char* name, DWORD size) {
    const KernelHandle section(OpenFileMappingA(FILE_MAP_READ, FALSE, name));
    return section ? MapViewOfFile(section.Get(), FILE_MAP_READ, 0, 0, size) : nullptr;
}

const PublishedHead& HeadOf(const PublishedSection& section) {
    return *reinterpret_cast<const PublishedHead*>(section.base);
}

} // namespace

bool PublishedValues::Map(const PublishedPlace& place) {
    Unmap();
    if (place.size < sizeof(PublishedHead)) return false;
    m_values = MapView(place.section.text, place.size);
    m_life = MapView(place.life.text, sizeof(LifeRecord));
    m_section = {static_cast<const BYTE*>(m_values), place.size / 8 * 8};
    if (m_values != nullptr && m_life != nullptr && BeginLifeWatch(static_cast<const LifeRecord*>(m_life), &m_watch))
        return true;
    Unmap();
    return false;
}

void PublishedValues::Unmap() {
    if (m_watch.record != nullptr) EndLifeWatch(m_watch);
    for (const void** view : {&m_values, &m_life}) {
        if (*view != nullptr) UnmapViewOfFile(*view);
        *view = nullptr;
    }
    m_section = {};
    m_seen.clear();
}

bool PublishedValues::IsCurrent() const {
    return HeadOf(m_section).state.load(std::memory_order_acquire) == kSectionCurrent;
}

bool PublishedValues::HaveChanged() {
    // The section is not trusted: no more slots than it has room for.
    const size_t room = (m_section.size - sizeof(PublishedHead)) / sizeof(PublishedSlot);
    const size_t count = std::min<size_t>(HeadOf(m_section).slotCount.load(std::memory_order_acquire), room);
    bool changed = count != m_seen.size();
    m_seen.resize(count);
    const auto* slots = reinterpret_cast<const PublishedSlot*>(m_section.base + sizeof(PublishedHead));
    for (size_t i = 0; i < count; ++i) {
        // Acquire: what is read afterwards is at least as new as this count.
        const DWORD sequence = slots[i].sequence.load(std::memory_order_acquire);
        changed = changed || sequence != m_seen[i];
        m_seen[i] = sequence;
    }
    return changed;
}

} // namespace product
