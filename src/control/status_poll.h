#pragma once

struct ControlContext;

// Looks at the impairment files and, while the status flag is set, answers the clear request and sends
// the status record; all that once a second at most, however often it is called.
//
// Threads: the control thread.
void PollImpairment(ControlContext& context);

// Opens the socket for status records and fills the address they go to, if the status flag is set. Clears
// the flag when the socket cannot be opened.
void OpenStatusSocket(ControlContext& context);
