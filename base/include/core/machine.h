/*
 * machine.h - selects the platform header.
 */
#ifndef FHCORE_MACHINE_H
#define FHCORE_MACHINE_H

#if defined(__linux__)
#include "../machines/linux.h"
#else
#error "fhcore is built for Linux"
#endif

#endif /* FHCORE_MACHINE_H */
