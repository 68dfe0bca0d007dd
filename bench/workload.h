// What is measured: four operations, each on all objects of one table.
//
// A workload keeps the stand-in's objects and sends no event. Both sides of the
// bench go through the operations in their order, on the same objects with the
// same contents, so that they write the same rows and send the same texts.
#pragma once

#include "objects/catalogue.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace qdb::bench
{

enum class Operation
{
    Create,
    RefreshChanged, // one column differs
    RefreshSame,    // none does
    Delete,
};

inline constexpr std::array kOperations = {
    Operation::Create,
    Operation::RefreshChanged,
    Operation::RefreshSame,
    Operation::Delete,
};

const char *NameOf(Operation operation);

// Signals that one operation sends, 1 or 0.
constexpr size_t SignalsOf(Operation operation)
{
    return operation == Operation::RefreshSame ? 0 : 1;
}

// How one run over all objects went.
struct Outcome
{
    double seconds;       // from the first event to the last effect
    uint64_t signalBytes; // of all JSON texts that were sent
};

// The row of TblMemoryInfo, type 0xE1.
const ObjTypeRow &MeasuredRow();

// The one parent of all objects; it has no row of its own.
inline constexpr uint32_t kParentOid = 0x1000;
inline constexpr char kParentKey[] = "System.Embedded.1";

class Workload
{
  public:
    // Forgets everything that the stand-in holds. No object is there yet.
    explicit Workload(size_t count);

    std::span<const uint32_t> Oids() const
    {
        return oids_;
    }

    // Brings the objects to where the operation's events find them. Throws
    // std::runtime_error when the stand-in refuses.
    void Prepare(Operation operation) const;

  private:
    std::vector<uint32_t> oids_;
};

} // namespace qdb::bench
