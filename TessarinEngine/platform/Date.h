#pragma once

// Points in time are seconds since 1970-01-01 00:00 UTC, as double.
using Date = double;
