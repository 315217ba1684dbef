// What no log and no trace may tell.
#pragma once

namespace wb {

// Overwrites the secrets in an element as the serializer writes it, where '<' begins a tag and nothing else: the text in elements
// called token or password, attributes of these names, and the payload when the element itself is one of SASL's. Their lengths
// still show.
void hide_secrets(char *xml);

}  // namespace wb
