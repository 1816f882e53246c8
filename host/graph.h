// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <string>
#include <vector>

#include "module.h"

namespace bess {

// The graph of named module instances: the door through which front ends (a
// program, a test, a control socket) reach modules. Every function runs on the
// command thread and may be called from any thread but a worker. Changes pause
// the workers for as long as it takes to relink gates.
//
// What a module throws out of its init command, a command or DeInit ends here,
// as a failure with code ENOTRECOVERABLE and the exception's text.

struct CreateResult {
  CommandResponse response;
  Module* module;  // null when the response is a failure
};

// Makes an instance of `class_name` and runs its init command with `arg`. An
// empty `name` stands for the class's name template and the first free number.
// An instance whose init fails is destroyed without DeInit. Fails with ENOENT
// for an unknown class and with EEXIST for a name that is taken.
CreateResult CreateModule(const std::string& class_name,
                          const std::string& name = "",
                          const google::protobuf::Any& arg = {});

// Takes the instance off its workers and out of its links, then runs DeInit and
// deletes it; it is gone even when DeInit throws.
CommandResponse DestroyModule(const std::string& name);

// Destroys all instances, the last one made first. The first failure, if any.
CommandResponse DestroyAllModules();

// Links output gate `ogate` of `from` to input gate `igate` of `to`. Fails with
// EINVAL for a gate that the class does not have, with EBUSY for an output gate
// that has a link.
CommandResponse ConnectModules(const std::string& from, gate_idx_t ogate,
                               const std::string& to, gate_idx_t igate);

// Removes the link from output gate `ogate`; ENOENT when there is none.
CommandResponse DisconnectModules(const std::string& from, gate_idx_t ogate);

// Runs a command; see ModuleBuilder::RunCommand.
CommandResponse RunModuleCommand(const std::string& name,
                                 const std::string& cmd,
                                 const google::protobuf::Any& arg = {});

// The instance of that name, or null.
Module* FindModule(const std::string& name);

// All instances, in the order in which they were made.
std::vector<Module*> ListModules();

}  // namespace bess
