#!/bin/sh
# A plugin that only agents from 2.0 on can load.
echo "corvid-plugin 0.3"
