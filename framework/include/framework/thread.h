#pragma once

/// Names the calling thread for ps, gdb and the like; 15 characters at most.
void SetThreadName(const char* name);
