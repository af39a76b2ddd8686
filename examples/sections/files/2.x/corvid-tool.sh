#!/bin/sh
# The tool as agents from 2.0 on get it.
echo "corvid-tool 2.1 (for agents 2.0 and later)"
