# Turns the public headers' plain comments into Doxygen comments as Doxygen
# reads them (the headers themselves stay as they are). Section rulers stay
# plain; the first comment of a file describes the file.
/-{4}/b
1s#^/\*$#/** @file#
1s#^//(.*)$#/// @file\n///\1#
# A comment after a declaration documents that member, also when it goes on
# over the next lines.
s#^([^/]*[;,{])[[:space:]]*/\*[[:space:]]*(.*\*/)[[:space:]]*$#\1 /**< \2#
s#^([^/]*[;,{])[[:space:]]*/\*([^*].*)$#\1 /**<\2#
s#^([^/]*[;,{])[[:space:]]*//[[:space:]]*(.*)$#\1 ///< \2#
# The same after the last enumerator of an enumeration, which has no comma.
s#^([[:space:]]*[A-Za-z_][A-Za-z0-9_]*[[:space:]]*=[^/]*)/\*([^*])#\1/**<\2#
# A comment above a declaration documents it.
s#^([[:space:]]*)/\*([^*]|$)#\1/**\2#
s#^([[:space:]]*)//([^/])#\1///\2#
# An empty comment line between two paragraphs keeps them one comment.
s#^([[:space:]]*)//$#\1///#
