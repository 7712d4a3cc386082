// SPDX-License-Identifier: ISC
//
// The daemon's whole interface on the bus: the object `fwupdate` with its method
// table. The methods themselves live in files of their own.
#pragma once

namespace fwupdate
{

// Registers the object on the bus connection and runs the event loop; returns
// when the loop ends. An object that cannot be registered is reported on
// standard error, and the loop runs all the same.
void serve_object();

} // namespace fwupdate
