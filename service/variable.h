// A variable, its role, and its value, which is read without a lock.
//
// A sequence lock guards the value. A writer makes the sequence count odd, changes size, words and write time, and
// makes the count even again. A reader copies, and keeps the copy when the count was even and the same before and
// after. A block that has become too small is replaced but not freed, so a reader never touches freed memory. Blocks
// grow by doubling, so the old blocks together are smaller than the last one.
//
// Writers of a variable take turns under one of 64 locks, chosen by its address. A write also goes to the variable's
// slot of the published values. State: the variables and these locks.
#pragma once

#include "memory.h"
#include "publication.h"

#include <span>

// ---- roles

// What a variable of that name means to the service, and who may write it.
enum class VariableRole : BYTE {
    None,        // anybody writes it
    State,       // administrators, and anybody where a setting says so
    Mailbox,     // forwarded requests: the service alone
    Answer,      // to forwarded requests: administrators; a printer side is one
    Setting,     // administrators
    AccessList,  // administrators; kept for the printer's next database
    PrinterName, // administrators, and anybody who writes what the printer list says
    PrinterList, // administrators; anybody adds a printer, or takes or releases the ownership for their own process
    Request,     // anybody; the service answers when no printer side serves the printer
    Polling,     // anybody; a write wakes the printer side
    Termination  // anybody; a write of an administrator also ends the printer sides
};

// The companion of a variable that not everybody may write is a Setting.
VariableRole RoleOf(std::string_view database, std::string_view variable);
VariableRole RoleOfCompanion(VariableRole role);

// ---- variables

struct MemberList;      // composite.h
struct VariableSignals; // signals.h

struct ValueBlock {
    using Word = SIZE_T;

    DWORD capacity; // bytes of the words behind this record; never changes
    std::atomic<DWORD> size;

    std::atomic<Word>* Words() { return reinterpret_cast<std::atomic<Word>*>(this + 1); }
};
static_assert(sizeof(ValueBlock) == 8 && sizeof(std::atomic<ValueBlock::Word>) == sizeof(ValueBlock::Word));

// One cache line each, so that clients of two variables do not contend.
struct alignas(64) Variable {
    std::atomic<Variable*> next; // in its database's bucket
    const Name* name;
    std::atomic<ValueBlock*> block;        // null for a composite
    std::atomic<MemberList*> members;      // null for all others, and for a composite without a list
    std::atomic<VariableSignals*> signals; // null until it is watched for the first time; then it stays
    std::atomic<DWORD> writeTime[2];       // low and high half of 100 ns since 1601
    std::atomic<DWORD> sequence;
    std::atomic<DWORD> slot; // of the database's publication; changed under the writer's lock
    DWORD room; // bytes that it takes in a composite; of all but the variable-length ones, those of the largest value
    BYTE type;  // product::DatabaseType
    bool companion; // made by a write to a name of another variable and "W"
    VariableRole role;
};
static_assert(sizeof(Variable) == 64);

// Size and time of a value, as they were at one moment, and how often it had been written by then.
struct ValueState {
    DWORD size;
    ULONGLONG writeTime;
    DWORD writes;
};

// Where the values of a database are.
struct ValueStore {
    Arena arena;
    std::atomic<Publication*> publication = nullptr;
    // A value did not find room in it: it has to be replaced by a larger one.
    std::atomic<bool> publicationIsFull = false;
};

// The block of a new variable's value. capacity: of the largest value that it will take before it is replaced.
ValueBlock* NewValueBlock(Arena& arena, Account& account, DWORD capacity, const BYTE* bytes, DWORD size,
                          product::ServiceStatus* status);

// kDone when a value of that size may be stored.
product::ServiceStatus CheckValueSize(const Variable& variable, DWORD size);

// What a variable of that type takes in a composite when it is created with that value: its size, or the payload of a
// variable-length one. The empty variable-length value, {4, 0}, has none.
DWORD RoomFor(product::DatabaseType type, const BYTE* bytes, DWORD size);

// Copies the value to out when capacity is enough for it; otherwise out may hold anything. Not for composites.
ValueState ReadValue(const Variable& variable, BYTE* out, DWORD capacity);

ULONGLONG ReadWriteTime(const Variable& variable);

// Stores a value that CheckValueSize accepts. Its write time is the time of day, and always later than the one before.
// *changed: the bytes differ from those before. kLimitReached, kOutOfMemory: nothing changed.
product::ServiceStatus WriteValue(Variable& variable, ValueStore& store, Account& account, const BYTE* bytes,
                                  DWORD size, bool* changed);

// Sets the write time without a value: of a variable just made, or of a composite whose list was set.
// A composite publishes its list of slots with that (composite.h); a list without memory sends readers to the service.
void TouchWriteTime(Variable& variable, ValueStore& store, std::span<const DWORD> list = {});
// Puts the present value, or a composite's list, into the slot of a section that nobody reads yet.
void FillSlot(Variable& variable, ValueStore& store, DWORD slot, std::span<const DWORD> list,
              const Publication* replaced);

// For a reader of several variables at once. Pieces between SequenceBegin and an unchanged SequenceNow belong together.
DWORD SequenceBegin(const Variable& variable); // waits until no writer is in the middle
DWORD SequenceNow(const Variable& variable);
ValueState CopyValue(const Variable& variable, BYTE* out, DWORD capacity); // as ReadValue, but unchecked
// The same for what the variable contributes to a composite: always its room, with zeros behind a shorter value. Of a
// variable-length value, as much of the payload as fits.
ValueState CopyPart(const Variable& variable, BYTE* out, DWORD capacity);

inline constexpr DWORD kWriterLocks = 64;
DWORD WriterLockOf(const Variable& variable); // 0 to 63
extern Lock g_writerLocks[kWriterLocks];

// A variable that was written; changed: its bytes differ from those before.
struct Written {
    Variable* variable;
    bool changed;
};

// Stores values of several variables at one moment. bytes has one value behind the other, each as long as its
// variable's room. No variable is listed twice, none is of variable length, and the caller holds the writer locks of
// all.
void WriteTogether(std::span<Written> variables, ValueStore& store, const BYTE* bytes);
