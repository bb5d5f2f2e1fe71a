#include "driver/run.h"

int main(int argc, char** argv) { return InspectorMain(argc, argv); }
