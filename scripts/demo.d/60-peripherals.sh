# PWM, GPIO and ADC: an output at the frequency the timer reaches closest, the pin levels,
# four one-shot samples of two inputs, and one second of streamed samples drawn to a file
# (each step is its own process, so each sees a freshly plugged virtual adapter).
step "veltrix pwm 53000002 set 2 1234.5 30"
"$SIM" "${ADAPTERS[@]}" -- "$CLI" pwm 53000002 set 2 1234.5 30
step "veltrix gpio 53000002 read FF"
"$SIM" "${ADAPTERS[@]}" -- "$CLI" gpio 53000002 read FF
step "veltrix adc 51000001 read 03 1000 4"
"$SIM" "${ADAPTERS[@]}" -- "$CLI" adc 51000001 read 03 1000 4
step "veltrix adc 51000001 stream --rate 1000 --seconds 1 --mask 05 --out build/adc-demo.csv"
"$SIM" "${ADAPTERS[@]}" -- "$CLI" adc 51000001 stream --rate 1000 --seconds 1 --mask 05 \
  --out build/adc-demo.csv
tail -n 2 build/adc-demo.csv
