// SPDX-License-Identifier: BSD-3-Clause
#pragma once

// How often the program has taken memory from the heap with new.
int countAllocations();
