// Keeps web pages of others away from a server on loopback that a browser can reach.
#pragma once

#include "tools/lab/HTTPExchange.h"

namespace corvid::lab {

// Whether a server on 127.0.0.1 may answer the request. Not so where a page of another origin had
// the browser send it ("Origin", "Sec-Fetch-Site"), nor where another name than localhost or
// 127.0.0.1 led here ("Host"), as when somebody's domain is made to point to loopback; any port
// may have, as one that is forwarded. Links to a page are followed from anywhere. Programs that
// are no browser send none of these but "Host" and pass.
bool isOfThisOrigin(const Request& request);

}  // namespace corvid::lab
