// The entry function of the render process: one render job, then the exit
// status (0, -1 seen as 255, or a plug-in's non-zero setup result).
#pragma once

int kindletMain(int argc, char** argv);
