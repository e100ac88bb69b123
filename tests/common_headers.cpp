// SPDX-License-Identifier: MIT
// Nothing of its own: what it is compiled with are the common headers of the tests.
