#pragma once

// The tool: reads the command line, runs the command, reports problems. The exit status.
int conveyToolMain(int argc, char** argv);
