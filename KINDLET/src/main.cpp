#include "KINDLET/src/Kindlet.h"

int main(int argc, char** argv) { return kindletMain(argc, argv); }
