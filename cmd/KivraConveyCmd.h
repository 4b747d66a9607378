#pragma once

#include <string>

// The front end: lists the registered applications, or checks whether one runs, as XML on standard
// output. What the layer meets (a disk, memory) it says on standard error, the front end nothing.
// One thread.

// The whole program; returns its exit status: 1 when the messaging layer does not start where it is
// needed (to complete a name without a version, in a listing or as the target of a check), or when
// what is registered could not be read to its end and the listing holds what could; else 0. A
// registered application whose path has no '/' ends the listing by an exception that nobody
// catches, after the lines before it are out: the reader must not take half a listing for a whole
// one.
int kivraConveyMain(int argc, char** argv);

// Asks the target for a sign of life, up to two seconds, and prints the answer as one element.
void checkRunning(const std::string& specifier);

// A copy of `text` with '&', '<' and '>' as entities; nothing else is changed, apostrophes neither.
std::string toXMLString(const std::string& text);
