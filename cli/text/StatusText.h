#pragma once

#include "Outcome.h"

/// The one place that knows what a status of the library means to a person, and which exit status it deserves.
/// `status` is any result of a service operation that is not success, known here or not.
Problem problemOf(int status);
