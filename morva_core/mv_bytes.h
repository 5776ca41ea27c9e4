// The byte helpers in one include: the bounded reader and writer, the byte buffer, hexadecimal
// text and telephone digits. Each has a header of its own.
#pragma once

#include "mv_bcd.h"
#include "mv_buff.h"
#include "mv_byteio.h"
#include "mv_core.h"
#include "mv_hex.h"
#include "mv_strings.h"
