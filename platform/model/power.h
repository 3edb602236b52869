// What the power manager remembers.
#pragma once

// Part of PnpArea.
void PowerBoot();
