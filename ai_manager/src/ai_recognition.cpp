#include "ai_recognition.h"
