// SPDX-License-Identifier: BSD-3-Clause
#pragma once

// How often the program has taken memory from the heap with new.
int countAllocations();

// Refuses the n-th of these requests from now on, 0 being the next one, once.
void refuseAllocation(int n);

// Whether it has been refused. Otherwise it will not be any more.
bool wasAllocationRefused();
