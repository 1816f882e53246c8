// SPDX-License-Identifier: BSD-3-Clause
// Registers nothing.
extern "C" int empty_plugin_answer() { return 42; }
