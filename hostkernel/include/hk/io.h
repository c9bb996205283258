/* placeholder: filled by the owner of this area */
#pragma once
#include "hk/base.h"
