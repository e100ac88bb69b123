// SPDX-License-Identifier: MIT
// Which version of LUN 0 this start shows when the local image was not checked against the server: once the
// server has answered a read, or the image has, the other never takes its place. Any thread, up to
// DISPATCH_LEVEL; changed by compare-exchange only.
#pragma once

#include <nt.h>

enum Version_Value : LONG {
    Version_Open = 0,
    Version_Server = 1,
    Version_Image = 2,
};

// True when the start shows this version, from now on or already.
bool Claim_Version(Version_Value Wanted);

// The image will not be checked in this start, for the server said nothing of its own. A read that waits for
// the server need not wait longer, unless the server's version is what the start shows.
void Version_Unchecked();
bool Reads_May_End();
