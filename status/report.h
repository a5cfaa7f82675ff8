// The status report written to standard error on SIGUSR1.
#pragma once

void zalk_status_report();
