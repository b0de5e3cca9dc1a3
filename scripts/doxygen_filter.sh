#!/bin/sh
# Shows our plain comments to Doxygen as documentation.
exec sed -e 's|^\( *\)//\( \|$\)|\1///\2|' "$1"
