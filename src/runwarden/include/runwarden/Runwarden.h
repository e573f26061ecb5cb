#pragma once

// The child-process library: runner, free ports, processor name, resources, single instance.

#include <runwarden/ExitAppIfAlreadyOpen.h>
#include <runwarden/Port.h>
#include <runwarden/ProcessManager.h>
#include <runwarden/Resources.h>
#include <runwarden/SystemArchitecture.h>
