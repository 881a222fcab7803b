#pragma once

// Storage of the library; each class has a header of its own.
