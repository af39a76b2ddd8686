#!/bin/sh
# The tool as agents of the 1.x line get it.
echo "corvid-tool 1.4 (for agents 1.x)"
