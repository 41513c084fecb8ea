#pragma once

#include "jobinputs.h"

// Verifies, extracts, chooses the source root and hands over, in that order;
// a failing step reports and ends the job.
JobEnd runInstallJob(const InstallJobInputs &inputs, const InstallReport &report);
