// Visibility of what the libraries offer; everything else is hidden.
#pragma once

#define VY_API __attribute__((visibility("default")))
