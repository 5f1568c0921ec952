// Status variables: the type codes and behaviour bits of a variable's flags word. No state.
//
// The built-in variables (product/variables.h) have them, and so does each value with which a printer model adds or
// replaces a variable in the registry (product/model_variables.h).
#pragma once

#include <stdint.h>

// Type codes: the masked value names the type. It is compared as a whole.
inline constexpr uint32_t SVT_MASK = 0x300000FF;
inline constexpr uint32_t SVT_BYTE = 0x01;
inline constexpr uint32_t SVT_WORD = 0x02;
inline constexpr uint32_t SVT_NUMBER = 0x04; // 32 bits
inline constexpr uint32_t SVT_STRING = 0x08; // NUL-terminated text in a field of the size
// Stored as a u32 payload length and the payload. The exports exchange the payload alone.
inline constexpr uint32_t SVT_VARIABLE = 0x10;
inline constexpr uint32_t SVT_RECORD = 0x20; // fixed record of the size
inline constexpr uint32_t SVT_COMPOSITE =
    0x40;                                   // the values of its members, one after the other; the service joins them
inline constexpr uint32_t SVT_QUEUE = 0x80; // stored as u32 length, u32 count, items of the size, oldest first
inline constexpr uint32_t SVT_EXTENDED = 0x30000000; // a read asks for its stored size first, as for SVT_VARIABLE
// A read asks for the stored size first.
inline constexpr uint32_t SVT_PROBED = SVT_VARIABLE | SVT_EXTENDED;

// Behaviour bits.
inline constexpr uint32_t SVF_PERSISTENT = 0x00000100;              // has a copy in the printer's driver data
inline constexpr uint32_t SVF_DIRECT = 0x00000200;                  // the printer itself can be asked for it
inline constexpr uint32_t SVF_RESET_ON_PORT_CHANGE = 0x00000800;    // a new port resets it to its initial value
inline constexpr uint32_t SVF_NOTIFY_EVERY_WRITE = 0x00001000;      // every write notifies, not only a change
inline constexpr uint32_t SVF_READABLE = 0x00010000;                // the value reads serve it
inline constexpr uint32_t SVF_WRITABLE = 0x00020000;                // the direct and asynchronous writes serve it
inline constexpr uint32_t SVF_PRINTER_DEFINED = 0x01000000;         // a row of the printer model, owned by its manager
inline constexpr uint32_t SVF_WRITE_WITHOUT_AUTHORITY = 0x08000000; // direct writes skip the authority check
inline constexpr uint32_t SVF_DIRECT_READ = 0x40000000;             // like SVF_DIRECT, for the direct read alone

// The empty variable-length value and the empty queue, as stored: a length of 4 and a word of 0.
inline constexpr uint32_t kEmptyVariableValue[2] = {4, 0};
