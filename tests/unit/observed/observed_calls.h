// A look over the shoulder of the program's own object code: what it asks of the platform's cryptography, and what its
// memory holds when a block goes back to the heap. For the tests of who owns a key and of what is wiped when.
//
// The linker sends the calls of this one test program through here (--wrap), and operator new and delete are replaced.
// All of them go on to the real thing. One thread, and one Observation at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vornix::observed {

// A call that came while an Observation lived.
struct Call {
    std::string Name;
    const void* Object; // the handle that was given or taken, or the block that was freed

    bool operator==(const Call& other) const = default;
};

// A stretch of the program's memory.
struct Place {
    const uint8_t* Begin = nullptr;
    size_t Length = 0;

    bool IsZero() const;
    std::vector<uint8_t> Bytes() const { return {Begin, Begin + Length}; }
};

// Collects from its construction to its destruction.
struct Observation {
    Observation();
    ~Observation();
    Observation(const Observation&) = delete;
    Observation& operator=(const Observation&) = delete;

    // Calls about providers and keys, and "operator delete" for the memory that backs a key; in their order.
    std::vector<Call> Calls;

    Place Password;                     // as BCryptDeriveKeyPBKDF2 was handed it
    Place DerivedKey;                   // as BCryptDeriveKeyPBKDF2 filled it
    std::vector<uint8_t> PasswordBytes; // what these held then
    std::vector<uint8_t> DerivedKeyBytes;

    const void* KeySource = nullptr;     // the key bytes as BCryptGenerateSymmetricKey was handed them
    const void* KeyObject = nullptr;     // the memory that it was given for the key
    std::vector<const void*> KeyObjects; // all such memory that was not freed since

    // Taken when the heap block with the password was given back.
    bool IsPasswordFreed = false;
    bool WasPasswordZero = false;
    bool WasDerivedKeyZero = false;

    Place LargestBlock; // that operator new gave

    std::vector<std::string> Names() const;
};

// The Observation that lives, or null.
Observation* Current();

} // namespace vornix::observed
