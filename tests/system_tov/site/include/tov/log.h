#pragma once
#include <tov/site.h>
