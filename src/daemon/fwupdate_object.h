// SPDX-License-Identifier: ISC
//
// The daemon's whole interface on the bus: the object `fwupdate` with its method
// table, and what brings it back when the bus was away. The methods themselves live
// in files of their own.
#pragma once

namespace fwupdate
{

// Registers the object on the bus connection and runs the event loop; returns
// when the loop ends. An object that cannot be registered is reported on
// standard error, and the loop runs all the same.
//
// From then on a lost connection is no end: the loop goes on, and twice a second the
// daemon tries to come back with its object. It says nothing about it.
void serve_object();

} // namespace fwupdate
