// Classes of characters: functions, without a table.
#pragma once
#include <sys/cdefs.h>

__BEGIN_DECLS
int isalnum(int);
int isalpha(int);
int isdigit(int);
int isspace(int);
int isxdigit(int);
int tolower(int);
int toupper(int);
__END_DECLS
