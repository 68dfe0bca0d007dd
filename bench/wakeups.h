// What the service's wakings cost by themselves: a process whose only two
// threads wake as often as its signal thread and its NC thread must.
#pragma once

#include "bench/process.h"

namespace qdb::bench
{

class WakeUps
{
  public:
    // Starts the process. Throws std::runtime_error when it can't be made.
    explicit WakeUps(int seconds);

    // Waits for its end; its processor time in seconds. Throws
    // std::runtime_error when it has failed. Once only.
    double Processor();

  private:
    Shared<double> processor_;
    Process process_;
};

} // namespace qdb::bench
