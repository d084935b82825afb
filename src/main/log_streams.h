#pragma once

class LogWriter;

// Puts a log thread between the process's prints and its descriptors: from now on stdout and stderr hand what
// is printed to a LogWriter, at the ends of lines and at once, as they did before. Without the memory or the
// thread for it they stay as they are, and null is returned. The writer lives as long as the process, because
// threads print to the end. Called once, first of all, by main; starts no other thread.
LogWriter* TakeOverStreams();

// Before the process ends: gives what has been printed a chance to be written. A reader that takes nothing
// for a second ends the wait. The writer may be null.
void FinishLog(LogWriter* writer);
