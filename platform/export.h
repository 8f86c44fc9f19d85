// Visibility of what the libraries offer; everything else is hidden.
#pragma once

// Marks a class or function that other programs may use.
#define VY_API __attribute__((visibility("default")))
