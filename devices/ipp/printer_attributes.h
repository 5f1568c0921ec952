// What the attributes of an IPP printer and of its jobs say, as a Reading. Each attribute is used only if it has the
// syntax that it should have. No state.
#pragma once

#include "message.h"
#include "reading.h"

namespace devices {

extern const char* const kChangingAttributes[];
extern const int kChangingAttributeCount;
extern const char* const kIdentityAttributes[];
extern const int kIdentityAttributeCount;
extern const char* const kAskedJobAttributes[];
extern const int kAskedJobAttributeCount;

// One printer-state-reasons keyword.
void TakeReason(std::string_view keyword, Reading* reading);

void ReadPrinter(ipp_t* message, const std::vector<std::string>& mediaSources, Reading* reading);
Identity ReadIdentity(ipp_t* message);
std::vector<Job> ReadJobs(ipp_t* message);

std::vector<std::string> KeywordsOf(ipp_t* message, const char* name);
std::vector<int32_t> NumbersOf(ipp_t* message, const char* name);
// fallback when the attribute is absent, or is no number.
int32_t NumberOf(ipp_t* message, const char* name, int32_t fallback = kNotKnown);

} // namespace devices
