// ZRBFoundationVersionNumber: the version of the platform's Foundation services that this layer
// stands for.
//
// Code written for the platform compares it with the version that fixed a fault of older ones, to
// decide whether it still needs a workaround: 1140.11 is the first version whose sessions hand out
// unique task identifiers when tasks are created on several threads at once, and whose work queues
// accept a background quality of service. This layer has none of the older faults, so the number
// is never below any threshold the library asks about.
#pragma once

inline constexpr double ZRBFoundationVersionNumber = 1140.11;
