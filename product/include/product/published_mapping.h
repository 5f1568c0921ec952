// The published values of one database (product/published_values.h), mapped for reading. State: the object's.
#pragma once

#include "product/client.h"
#include "product/published_values.h"
#include "product/service_life.h"

#include <vector>

namespace product {

class PublishedValues {
public:
    PublishedValues() = default;
    ~PublishedValues() { Unmap(); }
    PublishedValues(const PublishedValues&) = delete;
    PublishedValues& operator=(const PublishedValues&) = delete;

    // False: this process cannot, or nothing is published. The present mapping is given up either way.
    bool Map(const PublishedPlace& place);
    void Unmap();

    bool IsMapped() const { return m_values != nullptr; }
    // False: the service has replaced the section by a larger one.
    bool IsCurrent() const;
    bool ServiceLives() const { return IsAlive(m_watch); }
    // Whether a variable was written or added since the last call. One pass over the counts of the section.
    bool HaveChanged();
    const PublishedSection& Section() const { return m_section; }

private:
    const void* m_values = nullptr;
    const void* m_life = nullptr;
    PublishedSection m_section{};
    LifeWatch m_watch{};
    std::vector<DWORD> m_seen; // the sequence of each slot in use
};

} // namespace product
