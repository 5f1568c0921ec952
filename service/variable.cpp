// State: the locks of the writers.
#include "variable.h"

#include "product/mailboxes.h"
#include "product/printer_list.h"
#include "product/variable_names.h"
#include "product/variables.h"

#include <algorithm>
#include <memory>
#include <string.h>

using namespace product;
using Word = ValueBlock::Word;

// ---- roles

namespace {

struct RoleRow {
    std::string_view variable;
    VariableRole role;
};

constexpr RoleRow kOfPrinters[] = {
    {kForwardMailbox, VariableRole::Mailbox},
    {kForwardAnswer, VariableRole::Answer},
    {names::kAccessControlList, VariableRole::AccessList},
    {names::kPort, VariableRole::Setting},
    {names::kPrinterName, VariableRole::PrinterName},
    {names::kReadRequest, VariableRole::Request},
    {names::kWriteRequest, VariableRole::Request},
    {names::kCompulsivePolling, VariableRole::Polling},
    {names::kTerminateManager, VariableRole::Termination},
    // What applications leave for the printer's owner, and the results that they wait for.
    {kRelayedRegistrationsVariable, VariableRole::None},
    {kRelayedRequestVariable, VariableRole::None},
    {kResultsVariable, VariableRole::None},
};

} // namespace

VariableRole RoleOf(std::string_view database, std::string_view variable) {
    if (database == kMasterDatabase)
        return variable == kPrinterListVariable ? VariableRole::PrinterList : VariableRole::State;
    for (const RoleRow& row : kOfPrinters)
        if (row.variable == variable) return row.role;
    // The variables of printer models have no row.
    const BuiltInVariable* builtIn = FindBuiltInVariable(variable);
    return builtIn && builtIn->writers == Writers::Everyone ? VariableRole::None : VariableRole::State;
}

VariableRole RoleOfCompanion(VariableRole role) {
    switch (role) {
    case VariableRole::None:
    case VariableRole::State: // the printer side decides what it does with a direct write
    case VariableRole::Request:
    case VariableRole::Polling:
    case VariableRole::Termination:
        return VariableRole::None;
    default:
        return VariableRole::Setting;
    }
}

// ---- values

Lock g_writerLocks[kWriterLocks];

namespace {

constexpr SIZE_T kValueAlignment = 8;
constexpr DWORD kLengthSize = sizeof(DWORD); // of a variable-length value, before its payload

bool HasFixedSize(const Variable& variable) {
    return variable.type == kTypeByte || variable.type == kTypeWord || variable.type == kTypeNumber;
}

Word WordAt(const BYTE* bytes, DWORD size, DWORD at) {
    Word word = 0;
    memcpy(&word, bytes + at, std::min<DWORD>(sizeof word, size - at));
    return word;
}

// Stores of the words and of what follows are releases, and loads are acquires. That keeps them between the two
// accesses to the sequence count without a fence, which the thread sanitizer does not understand.
void FillBlock(ValueBlock& block, const BYTE* bytes, DWORD size) {
    std::atomic<Word>* words = block.Words();
    for (DWORD at = 0; at < size; at += sizeof(Word))
        words[at / sizeof(Word)].store(WordAt(bytes, size, at), std::memory_order_release);
    block.size.store(size, std::memory_order_release);
}

bool BlockHolds(ValueBlock& block, const BYTE* bytes, DWORD size) {
    if (block.size.load(std::memory_order_relaxed) != size) return false;
    const std::atomic<Word>* words = block.Words();
    for (DWORD at = 0; at < size; at += sizeof(Word)) {
        const Word word = words[at / sizeof(Word)].load(std::memory_order_relaxed);
        if (memcmp(&word, bytes + at, std::min<DWORD>(sizeof word, size - at)) != 0) return false;
    }
    return true;
}

ULONGLONG WriteTimeOf(const Variable& variable) {
    const ULONGLONG high = variable.writeTime[1].load(std::memory_order_acquire);
    return high << 32 | variable.writeTime[0].load(std::memory_order_acquire);
}

// One change of a variable and of its slot: their sequence counts are odd while it lasts. The writer's lock is held.
class Change {
public:
    void Begin(Variable& variable, ValueStore& store) {
        m_variable = &variable;
        m_store = &store;
        m_publication = store.publication.load(std::memory_order_acquire);
        m_slot = m_publication ? variable.slot.load(std::memory_order_relaxed) : 0;
        const DWORD odd = variable.sequence.load(std::memory_order_relaxed) + 1;
        variable.sequence.store(odd, std::memory_order_relaxed);
        BeginSlot(m_publication, m_slot, odd);
    }
    // Sequentially consistent: the writer reads the count of watches next. A client that has just set its watch must
    // either be seen there or see this value.
    void End() {
        const DWORD even = m_variable->sequence.load(std::memory_order_relaxed) + 1;
        EndSlot(m_publication, m_slot, even);
        m_variable->sequence.store(even, std::memory_order_seq_cst);
    }

    // Of other bytes than before.
    void PublishValue(const BYTE* bytes, DWORD size) {
        CountChange(m_publication, m_slot);
        if (!PutValue(m_publication, m_slot, bytes, size)) m_store->publicationIsFull = true;
    }
    // Stores now, or `earliest` when the time of day was set back before it.
    void StoreWriteTime(ULONGLONG now, ULONGLONG earliest) {
        const ULONGLONG time = std::max(now, earliest);
        m_variable->writeTime[0].store(static_cast<DWORD>(time), std::memory_order_release);
        m_variable->writeTime[1].store(static_cast<DWORD>(time >> 32), std::memory_order_release);
        PutTime(m_publication, m_slot, time);
    }

private:
    Variable* m_variable = nullptr;
    ValueStore* m_store = nullptr;
    Publication* m_publication = nullptr;
    DWORD m_slot = 0;
};

const BYTE* BytesOf(std::span<const DWORD> list) {
    return reinterpret_cast<const BYTE*>(list.data());
}

DWORD SizeOf(std::span<const DWORD> list) {
    return list.data() ? static_cast<DWORD>(list.size_bytes()) : kAskService;
}

// Bytes [from, to) of the value.
void CopyBytes(ValueBlock& block, DWORD from, DWORD to, BYTE* out) {
    const std::atomic<Word>* words = block.Words();
    for (DWORD at = from; at < to;) {
        const DWORD within = at % sizeof(Word);
        const DWORD count = std::min<DWORD>(sizeof(Word) - within, to - at);
        const Word word = words[at / sizeof(Word)].load(std::memory_order_acquire);
        memcpy(out, reinterpret_cast<const BYTE*>(&word) + within, count);
        out += count;
        at += count;
    }
}

} // namespace

DWORD WriterLockOf(const Variable& variable) {
    return static_cast<DWORD>(reinterpret_cast<UINT_PTR>(&variable) / sizeof(Variable) % kWriterLocks);
}

DWORD SequenceNow(const Variable& variable) {
    return variable.sequence.load(std::memory_order_relaxed);
}

DWORD SequenceBegin(const Variable& variable) {
    for (;;) {
        const DWORD sequence = variable.sequence.load(std::memory_order_acquire);
        if (sequence % 2 == 0) return sequence;
        // The writer is a thread of this process. It is copying, or waits for our processor.
        Sleep(0);
    }
}

ServiceStatus CheckValueSize(const Variable& variable, DWORD size) {
    if (variable.type == kTypeComposite) return kWrongSize;
    if (HasFixedSize(variable)) return size == variable.room ? kDone : kWrongSize;
    return size <= (variable.type == kTypeVariableLength ? kValueSizeMax : variable.room) ? kDone : kWrongSize;
}

DWORD RoomFor(DatabaseType type, const BYTE* bytes, DWORD size) {
    constexpr BYTE kEmpty[] = {4, 0, 0, 0, 0, 0, 0, 0};
    if (type != kTypeVariableLength) return size;
    if (size <= kLengthSize || (size == sizeof kEmpty && memcmp(bytes, kEmpty, size) == 0)) return 0;
    return size - kLengthSize;
}

ValueBlock* NewValueBlock(Arena& arena, Account& account, DWORD capacity, const BYTE* bytes, DWORD size,
                          ServiceStatus* status) {
    const DWORD words = (capacity + sizeof(Word) - 1) / sizeof(Word);
    void* piece = arena.Take(account, sizeof(ValueBlock) + words * sizeof(Word), kValueAlignment, status);
    if (!piece) return nullptr;
    auto* block = new (piece) ValueBlock{static_cast<DWORD>(words * sizeof(Word)), 0};
    std::uninitialized_value_construct_n(block->Words(), words);
    FillBlock(*block, bytes, size);
    return block;
}

ValueState CopyValue(const Variable& variable, BYTE* out, DWORD capacity) {
    ValueBlock* block = variable.block.load(std::memory_order_acquire);
    // Size and block may belong to two different writes. The count shows that afterwards; until then the block's own
    // capacity is the bound.
    const DWORD size = std::min(block->size.load(std::memory_order_acquire), block->capacity);
    if (size <= capacity) {
        const std::atomic<Word>* words = block->Words();
        DWORD at = 0;
        for (; at + sizeof(Word) <= size; at += sizeof(Word)) {
            const Word word = words[at / sizeof(Word)].load(std::memory_order_acquire);
            memcpy(out + at, &word, sizeof word);
        }
        if (at < size) {
            const Word word = words[at / sizeof(Word)].load(std::memory_order_acquire);
            memcpy(out + at, &word, size - at);
        }
    }
    return {size, WriteTimeOf(variable), SequenceNow(variable) / 2};
}

ValueState CopyPart(const Variable& variable, BYTE* out, DWORD capacity) {
    ValueBlock* block = variable.block.load(std::memory_order_acquire);
    const DWORD size = std::min(block->size.load(std::memory_order_acquire), block->capacity);
    if (variable.room <= capacity) {
        const DWORD from = variable.type == kTypeVariableLength ? std::min(kLengthSize, size) : 0;
        const DWORD count = std::min(size - from, variable.room);
        CopyBytes(*block, from, from + count, out);
        if (count < variable.room) memset(out + count, 0, variable.room - count); // of no bytes, out may be null
    }
    return {variable.room, WriteTimeOf(variable), SequenceNow(variable) / 2};
}

ValueState ReadValue(const Variable& variable, BYTE* out, DWORD capacity) {
    for (int tries = 0; tries < kReadTries; ++tries) {
        const DWORD sequence = SequenceBegin(variable);
        const ValueState state = CopyValue(variable, out, capacity);
        if (SequenceNow(variable) == sequence) return state;
    }
    LockHold hold{g_writerLocks[WriterLockOf(variable)]};
    return CopyValue(variable, out, capacity);
}

ULONGLONG ReadWriteTime(const Variable& variable) {
    for (;;) {
        const DWORD sequence = SequenceBegin(variable);
        const ULONGLONG time = WriteTimeOf(variable);
        if (SequenceNow(variable) == sequence) return time;
    }
}

ServiceStatus WriteValue(Variable& variable, ValueStore& store, Account& account, const BYTE* bytes, DWORD size,
                         bool* changed) {
    LockHold hold{g_writerLocks[WriterLockOf(variable)]};
    ValueBlock* block = variable.block.load(std::memory_order_relaxed);
    *changed = !BlockHolds(*block, bytes, size);
    ValueBlock* grown = nullptr;
    if (size > block->capacity) {
        ServiceStatus status = kDone;
        const DWORD doubled = std::min(block->capacity * 2, kValueSizeMax);
        grown = NewValueBlock(store.arena, account, std::max(doubled, size), bytes, size, &status);
        if (!grown) return status;
    }
    Change change;
    change.Begin(variable, store);
    if (grown)
        variable.block.store(grown, std::memory_order_release);
    else if (*changed)
        FillBlock(*block, bytes, size);
    if (*changed) change.PublishValue(bytes, size);
    // Clients without the published counts compare write times, so no two writes have the same one.
    change.StoreWriteTime(WriteTimeNow(), WriteTimeOf(variable) + kWriteTimeStep);
    change.End();
    return kDone;
}

void TouchWriteTime(Variable& variable, ValueStore& store, std::span<const DWORD> list) {
    LockHold hold{g_writerLocks[WriterLockOf(variable)]};
    Change change;
    change.Begin(variable, store);
    if (variable.type == kTypeComposite) change.PublishValue(BytesOf(list), SizeOf(list));
    change.StoreWriteTime(WriteTimeNow(), WriteTimeOf(variable));
    change.End();
}

void FillSlot(Variable& variable, ValueStore& store, DWORD slot, std::span<const DWORD> list,
              const Publication* replaced) {
    LockHold hold{g_writerLocks[WriterLockOf(variable)]};
    Publication* publication = store.publication.load(std::memory_order_relaxed);
    const DWORD sequence = variable.sequence.load(std::memory_order_relaxed);
    TakeOverChanges(*publication, slot, replaced, variable.slot.load(std::memory_order_relaxed));
    variable.slot.store(slot, std::memory_order_relaxed);
    BeginSlot(publication, slot, sequence + 1);
    if (ValueBlock* block = variable.block.load(std::memory_order_relaxed))
        PutValue(publication, slot, reinterpret_cast<const BYTE*>(block->Words()),
                 block->size.load(std::memory_order_relaxed));
    else
        PutValue(publication, slot, BytesOf(list), SizeOf(list));
    PutTime(publication, slot, WriteTimeOf(variable));
    EndSlot(publication, slot, sequence);
}

// A reader of several variables never sees only some of the new values: no count becomes even before all are odd.
void WriteTogether(std::span<Written> variables, ValueStore& store, const BYTE* bytes) {
    const ULONGLONG now = WriteTimeNow();
    Change changes[kCompositePartsMax];
    for (size_t i = 0; i < variables.size(); ++i)
        changes[i].Begin(*variables[i].variable, store);
    for (size_t i = 0; i < variables.size(); ++i) {
        Written& written = variables[i];
        Variable& variable = *written.variable;
        ValueBlock& block = *variable.block.load(std::memory_order_relaxed); // has room for it
        written.changed = !BlockHolds(block, bytes, variable.room);
        if (written.changed) {
            FillBlock(block, bytes, variable.room);
            changes[i].PublishValue(bytes, variable.room);
        }
        changes[i].StoreWriteTime(now, WriteTimeOf(variable) + kWriteTimeStep);
        bytes += variable.room;
    }
    for (size_t i = 0; i < variables.size(); ++i)
        changes[i].End();
}
