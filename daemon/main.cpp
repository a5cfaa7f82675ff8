#include "daemon/daemon.h"

int main(int argc, char *argv[]) { return zalk_main(argc, argv); }
