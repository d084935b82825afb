#pragma once

struct ControlContext;

// The control thread: serves text commands on the control socket, one client at a time, and drives the
// impairment poll, until the run flag is cleared, which it notices within 500 ms. Returns false, with a
// message, when the control socket cannot be set up; the proxy then runs on without control.
//
// Threads: a thread of its own; it alone uses the control and status sockets.
bool process_request_thread(ControlContext& context);
