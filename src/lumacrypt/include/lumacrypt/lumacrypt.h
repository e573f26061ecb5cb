// The sealed-channel library: key exchange, per-message keys, AEAD sealing and small codecs.
#pragma once

#include "lumacrypt/AEAD.h"
#include "lumacrypt/Base64.h"
#include "lumacrypt/Curve.h"
#include "lumacrypt/KeyExchangeStore.h"
#include "lumacrypt/Message.h"
#include "lumacrypt/PEM.h"
#include "lumacrypt/RandomData.h"
#include "lumacrypt/Timestamp.h"
#include "lumacrypt/Types.h"
