// Work that runs on threads which closing cannot join: the Data Manager's
// callback, and the detached reload threads.
//
// Such work enters the gate before it touches anything of the service and
// leaves it as its last act. Closing shuts the gate: nobody enters any more,
// and those inside are waited for.
#pragma once

namespace qdb
{

// Whether the caller may go on; if so it must call LeaveGate. Never blocks.
bool EnterGate();

// A place inside the gate for work that starts later on another thread; only
// for a caller that is inside itself.
void EnterGateForOther();

void LeaveGate();

// Has the Data Manager call no more; for each stop. The call may wait for a
// callback, or hang.
void RemoveListener();

// Whether a RemoveListener hasn't come back yet.
bool RemovingListener();

// Shuts the gate for good and waits until all have left.
void ShutGate();

// A visit that ends with the scope; false when the gate is shut.
class GateVisit
{
  public:
    GateVisit() : inside_(EnterGate())
    {
    }
    ~GateVisit()
    {
        if (inside_)
        {
            LeaveGate();
        }
    }
    GateVisit(const GateVisit &) = delete;
    GateVisit &operator=(const GateVisit &) = delete;

    explicit operator bool() const
    {
        return inside_;
    }

  private:
    bool inside_;
};

} // namespace qdb
