// How time is taken.
#pragma once

#include <functional>

namespace bench {

using Call = std::function<void()>;

/// Nanoseconds for one, of the fastest batch.
struct Timing {
    double call;
    double floor;
};

/// Throws unless `succeeded`: what fails is not to be measured as something fast.
void require(bool succeeded, const char* what);
inline void require(int succeeded, const char* what) {
    require(succeeded != 0, what);
}

/// Fewer batches, to see that everything works.
void measureQuickly();

/// Batches of about a millisecond, a call's and its floor's in turn. Whatever else the machine does makes some batches
/// slow and none fast: the fastest of many tells what the work itself takes.
Timing measurePair(const Call& call, const Call& floor);

/// Nanoseconds that one run takes.
double timeOf(const Call& call);

}  // namespace bench
