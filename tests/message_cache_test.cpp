// Tests land with their unit.
