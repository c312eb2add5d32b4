// The kernel's.
#pragma once
#include <sys/cdefs.h>

#include <linux/elf.h>
